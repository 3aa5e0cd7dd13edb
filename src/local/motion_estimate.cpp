#include "local/motion_estimate.h"

#include <algorithm>
#include <cmath>

#include "local/position_estimate.h"

namespace ZEL::Local {
namespace {

constexpr double kMaxSpeedMetresPerSecond = 41.66666666666667;  // 150 km/h
constexpr size_t kSpeedSamples = 5;
constexpr size_t kBearingSamples = 21;

bool hasPosition(const Core::LocationRecord& record) {
    return record.latitude != 0.0 && record.longitude != 0.0;
}

// `raw`, then the records of `results` with a position, newest first, up to `limit`.
std::vector<const Core::LocationRecord*> positionSamples(const Core::LocationRecord& raw,
                                                         const LocationHistory& results,
                                                         size_t limit) {
    std::vector<const Core::LocationRecord*> samples{&raw};
    for (const Core::LocationRecord& record : results) {
        if (samples.size() >= limit) {
            break;
        }
        if (hasPosition(record)) {
            samples.push_back(&record);
        }
    }
    return samples;
}

double distance(const Core::LocationRecord& a, const Core::LocationRecord& b) {
    return greatCircleDistance(a.latitude, a.longitude, b.latitude, b.longitude);
}

// The lower median (index (n - 1) / 2 after sorting) of the capped speeds
// between consecutive samples; false when every pair shares its time stamp.
bool medianStepSpeed(const std::vector<const Core::LocationRecord*>& samples, double& median) {
    std::vector<double> speeds;
    for (size_t i = 0; i + 1 < samples.size(); ++i) {
        const Core::LocationRecord& newer = *samples[i];
        const Core::LocationRecord& older = *samples[i + 1];
        if (newer.time == older.time) {
            continue;
        }
        double speed = distance(newer, older) / (Core::ageMs(newer.time, older.time) * 0.001);
        if (speed > kMaxSpeedMetresPerSecond) {
            speed = kMaxSpeedMetresPerSecond;
        }
        speeds.push_back(speed);
    }
    if (speeds.empty()) {
        return false;
    }
    std::sort(speeds.begin(), speeds.end());
    median = speeds[(speeds.size() - 1) / 2];
    return true;
}

struct Steadiness {
    double deviationTotal = 0.0;  // sum over entries of k x standard deviation
    double heardSlots = 0.0;      // K: non-zero slots among 0..10 of every entry
    double heardAnySlot = 0.0;    // H: non-zero slots among all 21 of every entry
};

Steadiness measureSteadiness(const std::vector<LocalApEntry>& tracked) {
    Steadiness steadiness;
    for (const LocalApEntry& entry : tracked) {
        double count = 0.0;
        double sum = 0.0;
        double squares = 0.0;
        for (size_t slot = 0; slot <= 10; ++slot) {
            if (entry.rss[slot] != 0) {
                count += 1.0;
                sum += entry.rss[slot];
                squares += static_cast<double>(entry.rss[slot]) * entry.rss[slot];
            }
        }
        if (count > 0.0) {
            steadiness.deviationTotal +=
                count * std::sqrt(squares / count - (sum * sum / count) / count);
            steadiness.heardSlots += count;
        }
        for (int32_t rss : entry.rss) {
            if (rss != 0) {
                steadiness.heardAnySlot += 1.0;
            }
        }
    }
    return steadiness;
}

// The greatest speed (m/s) the signals allow, or a negative value when they say the
// device stands still.
double speedCap(const std::vector<LocalApEntry>& tracked) {
    const Steadiness steadiness = measureSteadiness(tracked);
    if (tracked.empty() || steadiness.heardSlots <= 0.0) {
        return kMaxSpeedMetresPerSecond;
    }
    const double meanDeviation = steadiness.deviationTotal / steadiness.heardSlots;
    const double meanScansHeard = steadiness.heardAnySlot / static_cast<double>(tracked.size());
    if (meanDeviation < 2.0 || meanScansHeard > 8.0) {
        return -1.0;
    }
    return meanScansHeard > 7.5 ? 4.0 : kMaxSpeedMetresPerSecond;
}

// Initial great-circle bearing in radians from `from` to `to`.
double initialBearing(const Core::LocationRecord& from, const Core::LocationRecord& to) {
    const double phi1 = from.latitude * kRadiansPerDegree;
    const double lambda1 = from.longitude * kRadiansPerDegree;
    const double phi2 = to.latitude * kRadiansPerDegree;
    const double lambda2 = to.longitude * kRadiansPerDegree;
    return std::atan2(std::sin(lambda2 - lambda1) * std::cos(phi2),
                      std::sin(phi2) * std::cos(phi1) -
                          std::cos(lambda2 - lambda1) * std::cos(phi2) * std::sin(phi1));
}

// Fewer samples are pooled the more the angles spread.
size_t pooledAngleCount(const std::vector<double>& angles) {
    const double n = static_cast<double>(angles.size());
    double sum = 0.0;
    double squares = 0.0;
    for (double angle : angles) {
        sum += angle;
        squares += angle * angle;
    }
    const double mean = sum / n;
    const double variance = squares / n - mean * mean;
    size_t pooled = 21;
    if (variance > 2.8) {
        pooled = 2;
    } else if (variance > 2.5) {
        pooled = 3;
    } else if (variance > 2.3) {
        pooled = 5;
    }
    return std::min(pooled, angles.size());
}

}  // namespace

double estimateSpeed(const Core::LocationRecord& raw, const LocationHistory& results,
                     const std::vector<LocalApEntry>& tracked) {
    if (results.empty() ||
        (results.newest().latitude == 0.0 && results.newest().longitude == 0.0)) {
        return 0.0;
    }
    const Core::LocationRecord& newestResult = results.newest();
    const auto samples = positionSamples(raw, results, kSpeedSamples);
    if (samples.size() <= 2 || Core::ageMs(newestResult.time, samples.back()->time) >= 25001) {
        return 0.0;
    }
    double median = 0.0;
    if (!medianStepSpeed(samples, median)) {
        return 0.0;
    }
    const Core::LocationRecord& first = *samples.front();
    const Core::LocationRecord& last = *samples.back();
    const double overall = distance(first, last) / (Core::ageMs(first.time, last.time) * 0.001);
    // The sum of both speeds, mixed with the previous speed as it stands (km/h):
    // this blend is what the rest of the estimator is tuned to.
    double speed = (overall + median) * 0.2777777777777778 * 0.88 + 0.12 * newestResult.speed;
    const double cap = speedCap(tracked);
    if (cap < 0.0) {
        return 0.0;
    }
    if (speed > cap) {
        speed = cap;
    } else if (speed < 0.0) {
        speed = 0.0;
    }
    return speed * 3.6;
}

double estimateBearing(const Core::LocationRecord& raw, const LocationHistory& results) {
    if (raw.latitude == 0.0 && raw.longitude == 0.0) {
        return 0.0;
    }
    if (results.size() < 3 || results[0].speed == 0.0 || results[1].speed == 0.0 ||
        results[2].speed == 0.0) {
        return 0.0;
    }
    const auto samples = positionSamples(raw, results, kBearingSamples);
    if (samples.size() <= 2 || Core::ageMs(raw.time, samples.back()->time) >= 41001) {
        return 0.0;
    }
    std::vector<double> angles;
    for (size_t i = 0; i + 1 < samples.size(); ++i) {
        angles.push_back(initialBearing(*samples[i], raw));
    }
    const auto beyondQuarter = std::count_if(angles.begin(), angles.end(), [](double angle) {
        return angle > 1.570796325 || angle < -1.570796325;
    });
    if (static_cast<size_t>(beyondQuarter) > angles.size() / 2) {
        for (double& angle : angles) {
            if (angle < 0.0) {
                angle += 6.2831853;
            }
        }
    }
    const size_t pooled = pooledAngleCount(angles);
    std::sort(angles.begin(), angles.begin() + static_cast<std::ptrdiff_t>(pooled));
    double bearing = angles[(pooled + 1) / 2] * kDegreesPerRadian;
    if (bearing < 0.0) {
        bearing += 360.01;  // kept on purpose, as for the smoothed bearing: 360.01, not 360
    }
    return bearing;
}

}  // namespace ZEL::Local

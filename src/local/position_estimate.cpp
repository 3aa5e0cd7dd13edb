#include "local/position_estimate.h"

#include <algorithm>
#include <cmath>

#include "spi/log.h"

namespace ZEL::Local {
namespace {

constexpr double kEarthRadiusMetres = 6372800.0;
// A history record is recent enough to lean on when younger than this.
constexpr int32_t kRecentMs = 20000;
constexpr int32_t kUnbelievableRss = -20;  // dBm; this or stronger is not believed
constexpr int32_t kReplacementRss = -90;   // dBm
constexpr double kMaxSignalExponent = 0.5;
constexpr double kMinSignalExponent = 0.16667;

bool hasPosition(const Core::LocationRecord& record) {
    return record.latitude != 0.0 && record.longitude != 0.0;
}

// The newest history record younger than 20000 ms with a position, or null.
const Core::LocationRecord* recentPosition(const LocationHistory& history,
                                           const Core::TimeStamp& now) {
    for (const Core::LocationRecord& record : history) {
        if (Core::ageMs(now, record.time) < kRecentMs && hasPosition(record)) {
            return &record;
        }
    }
    return nullptr;
}

// The element at index (n - 1) / 2 of the sorted values: the lower median.
double lowerMedian(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) / 2];
}

Reference pickReference(const std::vector<LocalApEntry>& entries, const Core::LocationRecord& raw,
                        const LocationHistory& history) {
    if (const Core::LocationRecord* recent = recentPosition(history, raw.time)) {
        return {recent->latitude, recent->longitude, recent->speed, recent->time};
    }
    std::vector<double> latitudes;
    std::vector<double> longitudes;
    for (const LocalApEntry& entry : entries) {
        latitudes.push_back(entry.latitude);
        longitudes.push_back(entry.longitude);
    }
    return {lowerMedian(latitudes), lowerMedian(longitudes), 0.0, raw.time};
}

double signalRss(const LocalApEntry& entry, const Reference& reference,
                 const std::vector<LocalApEntry>& tracked, SPI::Logger& log) {
    double rss = entry.rss[0];
    if (entry.rss[0] >= kUnbelievableRss) {
        rss = kReplacementRss;
        ZEL_LOG_ERROR(log, "AP RSS was limited to -90dBm");
    }
    if (reference.speed < kRssAveragingSpeedLimit) {
        if (const LocalApEntry* history = findTracked(tracked, entry.mac)) {
            double sum = rss;
            int count = 1;
            for (size_t slot = 1; slot <= 4; ++slot) {
                if (history->rss[slot] != 0) {
                    sum += history->rss[slot];
                    ++count;
                }
            }
            rss = sum / count;
        }
    }
    return rss;
}

double clampedExponent(double exponent) {
    if (exponent > kMaxSignalExponent) {
        return kMaxSignalExponent;
    }
    if (exponent < kMinSignalExponent) {
        return kMinSignalExponent;
    }
    return exponent;
}

void copyHistoryPosition(Core::LocationRecord& raw, const LocationHistory& history) {
    const Core::LocationRecord* recent = recentPosition(history, raw.time);
    if (recent == nullptr) {
        return;
    }
    raw.latitude = recent->latitude;
    raw.longitude = recent->longitude;
    raw.hpe = recent->hpe;
    raw.speed = recent->speed;
    raw.bearing = recent->bearing;
    raw.nap = recent->nap;
    raw.time = recent->time;
}

}  // namespace

double gateRadius(const std::vector<LocalApEntry>& entries, const Reference& reference,
                  int32_t ageMs) {
    if (ageMs > kRecentMs) {
        ageMs = 0;
    }
    double radius = ageMs * 0.01 + 75.0;
    if (countWithin(entries, reference, radius) < 3) {
        radius = ageMs * 0.01 + 150.0;
        if (countWithin(entries, reference, radius) < 3) {
            radius = ageMs * 0.01 + 300.0;
        }
    }
    return radius;
}

size_t countWithin(const std::vector<LocalApEntry>& entries, const Reference& reference,
                   double radius) {
    return static_cast<size_t>(std::count_if(
        entries.begin(), entries.end(),
        [&](const LocalApEntry& entry) { return distanceFrom(reference, entry) < radius; }));
}

void removeBeyond(std::vector<LocalApEntry>& entries, const Reference& reference, double radius) {
    std::erase_if(entries, [&](const LocalApEntry& entry) {
        return distanceFrom(reference, entry) > radius;
    });
}

double distanceFrom(const Reference& reference, const LocalApEntry& entry) {
    return greatCircleDistance(reference.latitude, reference.longitude, entry.latitude,
                               entry.longitude);
}

double greatCircleDistance(double latitudeA, double longitudeA, double latitudeB,
                           double longitudeB) {
    const double phiA = latitudeA * kRadiansPerDegree;
    const double lambdaA = longitudeA * kRadiansPerDegree;
    const double phiB = latitudeB * kRadiansPerDegree;
    const double lambdaB = longitudeB * kRadiansPerDegree;
    const double distance =
        std::acos(std::sin(phiA) * std::sin(phiB) +
                  std::cos(phiA) * std::cos(phiB) * std::cos(lambdaB - lambdaA)) *
        kEarthRadiusMetres;
    return std::isnan(distance) ? 0.0 : distance;
}

double qualityFactor(uint32_t quality) {
    if (quality < 18) {
        return 0.001;
    }
    if (quality > 30) {
        return 1.0;
    }
    return 0.999 * (std::log10(static_cast<double>(quality)) - std::log10(18.0)) /
               (std::log10(30.0) - std::log10(18.0)) +
           0.001;
}

void estimatePosition(std::vector<LocalApEntry>& entries, Core::LocationRecord& raw,
                      const LocationHistory& history, const std::vector<LocalApEntry>& tracked,
                      SPI::Logger& log) {
    // With no entry the gate has nothing to remove: straight to the history path.
    if (!entries.empty()) {
        const Reference reference = pickReference(entries, raw, history);
        const double radius = gateRadius(entries, reference, Core::ageMs(raw.time, reference.time));
        removeBeyond(entries, reference, radius);
        if (!entries.empty()) {
            std::vector<double> weights;
            weights.reserve(entries.size());
            double total = 0.0;
            for (const LocalApEntry& entry : entries) {
                const double rss = signalRss(entry, reference, tracked, log);
                const double milliwatts = std::pow(10.0, rss * 0.1);
                const double weight = std::pow(milliwatts, clampedExponent(entry.signalExponent)) *
                                      qualityFactor(entry.quality);
                weights.push_back(weight);
                total += weight;
            }
            for (size_t i = 0; i < entries.size(); ++i) {
                raw.latitude += weights[i] / total * entries[i].latitude;
                raw.longitude += weights[i] / total * entries[i].longitude;
            }
            raw.nap = static_cast<uint16_t>(entries.size());
            return;
        }
    }
    copyHistoryPosition(raw, history);
}

double estimateHpe(const std::vector<LocalApEntry>& entries) {
    if (entries.empty()) {
        return 150.0;
    }
    const double count = static_cast<double>(entries.size());
    double smallestExponent = entries.front().signalExponent;
    for (const LocalApEntry& entry : entries) {
        smallestExponent = std::min(smallestExponent, entry.signalExponent);
    }
    const double a =
        0.36302911493501777 * std::pow(11.0, (smallestExponent - 0.16667) * 2.999400119976005);
    const double b = 5.810575246949448 * std::sqrt(1.0 / count);
    const double hpe = (a + b - 4.0) * 15.101289134438305 + 31.73;
    return hpe < 1.0 ? 1.0 : hpe;
}

}  // namespace ZEL::Local

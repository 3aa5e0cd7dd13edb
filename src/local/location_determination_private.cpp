#include "local/location_determination_private.h"

#include <algorithm>
#include <iterator>

#include "local/location_history.h"
#include "local/motion_estimate.h"
#include "local/position_estimate.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Local {
namespace {

using Core::ResultCode;

// A position older than this is not smoothed with, and without a known AP a raw
// estimate older than this is not fallen back on.
constexpr int32_t kRecentMs = 20000;
// Speed (km/h) up to which ten positions are averaged evenly.
constexpr double kStandingSpeed = 2.2222222222222223;

// The nine-weight table followed by the ten-weight one. Ten samples weighted by the
// nine-weight table (a newest result exactly 20000 ms old) take the first entry of
// the ten-weight table as their tenth weight: the tables are laid out for that.
constexpr double kSmoothingWeights[19] = {0.04, 0.08, 0.12, 0.16, 0.2, 0.16, 0.12, 0.08, 0.04, 0.1,
                                          0.1,  0.1,  0.1,  0.1,  0.1, 0.1,  0.1,  0.1,  0.1};
constexpr size_t kNineWeights = 0;
constexpr size_t kTenWeights = 9;

constexpr double kBearingWeights[5] = {0.1, 0.22, 0.36, 0.22, 0.1};
constexpr int32_t kBearingSampleMs = 25000;

bool hasPosition(const Core::LocationRecord& record) {
    return record.latitude != 0.0 && record.longitude != 0.0;
}

}  // namespace

LocalDeterminationBase::LocalDeterminationBase(const char* categoryName)
    : log_(SPI::getLogger(categoryName)) {}

void LocalDeterminationBase::prepare(std::string_view realm) {
    release();
    for (const std::string& path : paths_) {
        std::unique_ptr<Tiles::LocalCompressedFileReader> reader =
            Tiles::LocalCompressedFileReader::create();
        if (reader != nullptr && reader->open(path, std::string(realm))) {
            readers_.push_back(std::move(reader));
        }
    }
}

void LocalDeterminationBase::release() {
    readers_.clear();
}

LocationDeterminationPrivate::LocationDeterminationPrivate()
    : LocalDeterminationBase("ZEL.API.LocationDeterminationPrivate") {}

ResultCode LocationDeterminationPrivate::determine(const Core::LocationRecord*,
                                                   const Core::ApList& aps,
                                                   Core::LocationRecord& out) {
    const Core::TimeStamp now = SPI::currentTime();
    Core::LocationRecord raw;
    raw.time = now;
    const StoredApMap known = lookupStoredAps(readers_, aps, log_);
    if (known.empty() &&
        (rawHistory().empty() || Core::ageMs(raw.time, rawHistory().newest().time) > kRecentMs)) {
        return ResultCode::kCannotDetermine;
    }

    std::vector<LocalApEntry> entries = splitScan(aps, known, out);
    updateTrackedAps(trackedAps_, entries, aps);

    estimatePosition(entries, raw, rawHistory(), trackedAps_, log_);
    out.nap = raw.nap;
    out.hpe = estimateHpe(entries);
    const bool failed = raw.latitude == 0.0 && raw.longitude == 0.0;
    if (failed) {
        out.latitude = 0.0;
        out.longitude = 0.0;
    } else {
        smoothPosition(raw, out);
    }

    if (entries.empty()) {
        // The history path: speed and bearing come with the copied position, or are 0.
        out.speed = raw.speed;
        out.bearing = raw.bearing;
    } else {
        estimateMotion(raw, out);
    }

    // The delivered record carries the time of this call, also where the raw one
    // copied an older stamp from the history.
    out.time = now;
    rawHistory().add(raw);
    resultHistory().add(out);
    return failed ? ResultCode::kCannotDetermine : ResultCode::kOk;
}

std::vector<LocalApEntry> LocationDeterminationPrivate::splitScan(const Core::ApList& aps,
                                                                  const StoredApMap& known,
                                                                  Core::LocationRecord& out) const {
    std::vector<LocalApEntry> entries;
    out.knownAps.clear();
    out.unknownAps.clear();
    for (const Core::ScannedAP& ap : aps) {
        auto found = known.find(ap.mac);
        if (found == known.end()) {
            ZEL_LOG_DEBUG(log_, "unknown AP: %s", Core::macText(ap.mac).c_str());
            out.unknownAps.push_back(ap);
        } else {
            out.knownAps.push_back(ap);
            entries.push_back(LocalApEntry::heard(ap, found->second));
        }
    }
    return entries;
}

void LocationDeterminationPrivate::estimateMotion(Core::LocationRecord& raw,
                                                  Core::LocationRecord& out) const {
    raw.speed = estimateSpeed(raw, resultHistory(), trackedAps_);
    out.speed = raw.speed;
    if (raw.speed == 0.0 && !rawHistory().empty()) {
        // Standing still: keep the last bearing rather than one made from noise.
        raw.bearing = rawHistory().newest().bearing;
        out.bearing = raw.bearing;
    } else {
        smoothBearing(raw, out);
    }
}

void LocationDeterminationPrivate::smoothPosition(const Core::LocationRecord& raw,
                                                  Core::LocationRecord& out) const {
    const LocationHistory& results = resultHistory();
    if (results.empty() || Core::ageMs(raw.time, results.newest().time) >= kRecentMs + 1) {
        out.latitude = raw.latitude;
        out.longitude = raw.longitude;
        return;
    }
    const Core::LocationRecord& newestResult = results.newest();
    const bool standing = newestResult.speed <= kStandingSpeed;
    const size_t wanted = standing ? 10 : 9;
    const int32_t maxAge = static_cast<int32_t>(wanted) * 1000 + kRecentMs;
    std::vector<const Core::LocationRecord*> samples{&raw};
    for (const Core::LocationRecord& record : rawHistory()) {
        if (samples.size() >= wanted) {
            break;
        }
        if (Core::ageMs(raw.time, record.time) < maxAge && hasPosition(record)) {
            samples.push_back(&record);
        }
    }
    if (samples.size() < wanted) {
        out.latitude = raw.latitude;
        out.longitude = raw.longitude;
        return;
    }
    const bool evenWeights = Core::ageMs(raw.time, newestResult.time) < kRecentMs && standing;
    const double* weights = &kSmoothingWeights[evenWeights ? kTenWeights : kNineWeights];
    for (size_t k = 0; k < samples.size(); ++k) {
        out.latitude += weights[k] * samples[k]->latitude;
        out.longitude += weights[k] * samples[k]->longitude;
    }
}

void LocationDeterminationPrivate::smoothBearing(Core::LocationRecord& raw,
                                                 Core::LocationRecord& out) const {
    raw.bearing = estimateBearing(raw, resultHistory());
    if (raw.bearing == 0.0) {
        out.bearing = 0.0;
        return;
    }
    const LocationHistory& results = resultHistory();
    if (results.empty() || Core::ageMs(raw.time, results.newest().time) >= kRecentMs + 1) {
        out.bearing = raw.bearing;
        return;
    }
    double bearings[5];
    size_t count = 0;
    bearings[count++] = raw.bearing;
    for (const Core::LocationRecord& record : rawHistory()) {
        if (count == 5) {
            break;
        }
        if (Core::ageMs(raw.time, record.time) < kBearingSampleMs && hasPosition(record) &&
            record.bearing != 0.0) {
            bearings[count++] = record.bearing;
        }
    }
    if (count != 5) {
        out.bearing = raw.bearing;
        return;
    }
    // Around north, 350 and 10 must average to 0, not 180: with most bearings in
    // the northern half, those past south are taken as negative.
    const auto northern =
        std::count_if(std::begin(bearings), std::end(bearings),
                      [](double bearing) { return bearing < 90.0 || bearing > 270.0; });
    if (northern >= 3) {
        for (double& bearing : bearings) {
            if (bearing > 180.0) {
                bearing -= 360.0;
            }
        }
    }
    for (size_t k = 0; k < 5; ++k) {
        out.bearing += kBearingWeights[k] * bearings[k];
    }
    // Kept on purpose: 360.01, not 360; the smoothed bearing has always been lifted by this much.
    if (out.bearing < 0.0) {
        out.bearing += 360.01;
    }
}

}  // namespace ZEL::Local

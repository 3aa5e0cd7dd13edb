#include "api/one_shot_location.h"

#include "spi/platform.h"

namespace ZEL::API {

using Core::ResultCode;

OneShotLocationState::OneShotLocationState(int streetAddressLookup,
                                           Core::LocationDetermination& local, RemoteLocator remote,
                                           const LocationCache& cache)
    : log_(SPI::getLogger("ZEL_location")),
      streetAddressLookup_(streetAddressLookup),
      local_(local),
      remote_(std::move(remote)),
      cache_(cache) {}

int OneShotLocationState::onScan(const ScanLoopState& loop, ResultCode code,
                                 const Core::ApList& fresh) {
    if (code != ResultCode::kOk) {
        result_ = code;
        return 0;
    }
    const uint16_t nap = location_.nap;
    const uint32_t elapsed = SPI::tickCount() - loop.startTick;
    heard_.merge(fresh, SPI::currentTime());
    const size_t count = heard_.size();
    ZEL_LOG_DEBUG(log_, "scanned %d APs so far (%d)", static_cast<int>(count),
                  static_cast<int>(elapsed));
    if (count == 0) {
        result_ = ResultCode::kNoWifiInRange;
        return 1;
    }
    const size_t newSinceLocation = count - countAtLocation_;
    ZEL_LOG_DEBUG(log_, "new APs since last location: %d", static_cast<int>(newSinceLocation));

    // The device's own estimate, at most once a second, and only when no street
    // address is wanted (only the server knows addresses).
    if (streetAddressLookup_ == Core::kNoStreetAddress && elapsed % 1000 <= 100) {
        if (std::optional<int> answer = tryLocal(count)) {
            return *answer;
        }
    }
    if (newSinceLocation + nap < kEnoughAps) {
        if (newSinceLocation == 0) {
            return 1;
        }
        if (nap != 0 || elapsed < 3000) {
            return elapsed < 2000 ? 1 : tryCache(elapsed, count);
        }
    }
    return tryRemote(count);
}

std::optional<int> OneShotLocationState::tryLocal(size_t count) {
    Core::LocationRecord previous = location_;
    Core::LocationRecord found;
    if (local_.determine(&previous, heard_.aps(), found) != ResultCode::kOk) {
        return std::nullopt;  // silent: the cache or the server may still answer
    }
    ZEL_LOG_DEBUG(log_, "location request succeeded locally: %f, %f +/-%.1fm %d", found.latitude,
                  found.longitude, found.hpe, found.nap);
    return accept(found, count);
}

int OneShotLocationState::tryCache(uint32_t elapsed, size_t count) {
    ZEL_LOG_DEBUG(log_, "about to look for location in cache (elapsed time: %d)",
                  static_cast<int>(elapsed));
    Core::LocationRecord cached;
    if (!cache_.find(heard_.aps(), cached)) {
        return 1;
    }
    if (cached.nap == 0) {
        ZEL_LOG_DEBUG(log_, "no-location found in cache");
        return 1;
    }
    if (cached.nap <= location_.nap) {
        return 1;
    }
    ZEL_LOG_DEBUG(log_, "found location in cache with nap = %d", cached.nap);
    result_ = ResultCode::kOk;
    location_ = std::move(cached);
    countAtLocation_ = count;
    return 0;
}

int OneShotLocationState::tryRemote(size_t count) {
    Core::LocationRecord found;
    result_ = remote_(heard_.aps(), found);
    if (result_ == ResultCode::kOk) {
        ZEL_LOG_DEBUG(log_, "location request succeeded remotely: %f, %f +/-%.1fm %d",
                      found.latitude, found.longitude, found.hpe, found.nap);
        return accept(found, count);
    }
    if (result_ == ResultCode::kCannotDetermine) {
        ZEL_LOG_INFO(log_, "server can't determine location");
        return 1;
    }
    ZEL_LOG_ERROR(log_, "failed to get location from server: %d", Core::toInt(result_));
    return 0;
}

// Takes `location` as the current one; stops once it rests on enough APs.
int OneShotLocationState::accept(const Core::LocationRecord& location, size_t count) {
    result_ = ResultCode::kOk;
    location_ = location;
    countAtLocation_ = count;
    if (location_.nap >= kEnoughAps) {
        ZEL_LOG_DEBUG(log_, "bingo");
        return 0;
    }
    ZEL_LOG_DEBUG(log_, "keep scanning");
    return 1;
}

}  // namespace ZEL::API

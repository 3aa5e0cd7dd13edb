// The one-shot location flow: after each scan it decides between the on-device
// determination, the location cache and the server, and whether to stop.
#pragma once

#include <functional>
#include <optional>

#include "api/location_cache.h"
#include "api/location_determination.h"
#include "api/scan_loop.h"
#include "spi/log.h"

namespace ZEL::API {

// Asks the server for a position from `aps`; returns 0, 6 (the server cannot
// place them) or another ZEL_ error code.
using RemoteLocator = std::function<int(const ApList& aps, LocationRecord& out)>;

// The state of one ZEL_location call. `onScan` is the scan loop's callback.
class OneShotLocationState {
  public:
    OneShotLocationState(int streetAddressLookup, LocationDetermination& local,
                         RemoteLocator remote, const LocationCache& cache);

    // Returns non-zero to keep scanning, 0 to stop.
    int onScan(const ScanLoopState& loop, int code, const ApList& fresh);

    ScanCallback callback() {
        return [this](const ScanLoopState& loop, int code, const RecentApList&, const ApList& fresh,
                      const ApList&) { return onScan(loop, code, fresh); };
    }

    int result() const { return result_; }
    const LocationRecord& location() const { return location_; }
    // Every AP heard during the call, in time order.
    const RecentApList& heard() const { return heard_; }

  private:
    // The stop rule: a position from at least this many APs ends the scanning.
    static constexpr uint16_t kEnoughAps = 3;

    // The loop's answer when the device placed itself, nothing when it could not.
    std::optional<int> tryLocal(size_t count);
    int tryCache(uint32_t elapsed, size_t count);
    int tryRemote(size_t count);
    int accept(const LocationRecord& location, size_t count);

    log4cpp::Category& log_;
    int streetAddressLookup_;
    LocationDetermination& local_;
    RemoteLocator remote_;
    const LocationCache& cache_;
    RecentApList heard_{30000};
    int result_ = ZEL_ERROR_NO_WIFI_IN_RANGE;
    LocationRecord location_;
    size_t countAtLocation_ = 0;  // APs heard when the current location was found
};

}  // namespace ZEL::API

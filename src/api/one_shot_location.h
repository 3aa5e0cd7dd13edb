// The one-shot location flow: after each scan it decides between the on-device
// determination, the location cache and the server, and whether to stop.
#pragma once

#include <functional>
#include <optional>

#include "api/location_cache.h"
#include "api/scan_loop.h"
#include "core/location_determination.h"
#include "spi/log.h"

namespace ZEL::API {

// Asks the server for a position from `aps`; kCannotDetermine when the server
// cannot place them.
using RemoteLocator =
    std::function<Core::ResultCode(const Core::ApList& aps, Core::LocationRecord& out)>;

// The state of one ZEL_location call. `onScan` is the scan loop's callback.
class OneShotLocationState {
  public:
    OneShotLocationState(int streetAddressLookup, Core::LocationDetermination& local,
                         RemoteLocator remote, const LocationCache& cache);

    // Returns non-zero to keep scanning, 0 to stop.
    int onScan(const ScanLoopState& loop, Core::ResultCode code, const Core::ApList& fresh);

    ScanCallback callback() {
        return [this](const ScanLoopState& loop, Core::ResultCode code, const Core::RecentApList&,
                      const Core::ApList& fresh,
                      const Core::ApList&) { return onScan(loop, code, fresh); };
    }

    Core::ResultCode result() const { return result_; }
    const Core::LocationRecord& location() const { return location_; }
    // Every AP heard during the call, in time order.
    const Core::RecentApList& heard() const { return heard_; }

  private:
    // The stop rule: a position from at least this many APs ends the scanning.
    static constexpr uint16_t kEnoughAps = 3;

    // The loop's answer when the device placed itself, nothing when it could not.
    std::optional<int> tryLocal(size_t count);
    int tryCache(uint32_t elapsed, size_t count);
    int tryRemote(size_t count);
    int accept(const Core::LocationRecord& location, size_t count);

    SPI::Logger& log_;
    int streetAddressLookup_;
    Core::LocationDetermination& local_;
    RemoteLocator remote_;
    const LocationCache& cache_;
    Core::RecentApList heard_{Core::kRecentMaxAgeMs};
    Core::ResultCode result_ = Core::ResultCode::kNoWifiInRange;
    Core::LocationRecord location_;
    size_t countAtLocation_ = 0;  // APs heard when the current location was found
};

}  // namespace ZEL::API

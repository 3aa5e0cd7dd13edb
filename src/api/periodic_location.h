// Periodic location: one on-device determination per scan period, each handed to
// the caller's callback, and the process-wide smoother it passes through.
#pragma once

#include <deque>
#include <functional>
#include <memory>

#include "api/scan_loop.h"
#include "core/location_determination.h"
#include "spi/log.h"

namespace ZEL::API {

// Keeps a short history of delivered positions. The history is emptied on every
// call, so each delivered position is the period's own determination; the record
// passed in is never changed.
class LocationSmoother {
  public:
    virtual ~LocationSmoother() = default;

    // Records `location` at `timeMs` (ms since the epoch). Returns 0.
    virtual int smooth(uint64_t timeMs, const Core::LocationRecord& location);

    // The number of periods a smoothing window would span.
    virtual int windowSize() const { return 6; }

    size_t historySize() const { return history_.size(); }

  private:
    struct Sample {
        uint64_t timeMs;
        double latitude, longitude, hpe;
        uint16_t nap;
        double speed, bearing;
    };
    std::deque<Sample> history_;  // newest first
};

// Receives each period's outcome: kOk with the location, or a failure code and null.
// Returns non-zero for more locations, 0 to stop.
using LocationCallback = std::function<int(Core::ResultCode code, const Core::LocationRecord*)>;

// The state of one ZEL_periodic_location call. `onScan` is the scan loop's callback.
class PeriodicLocationState {
  public:
    PeriodicLocationState(uint32_t periodMs, LocationCallback callback,
                          Core::LocationDetermination& local, LocationSmoother& smoother);

    int onScan(const ScanLoopState& loop, Core::ResultCode code, const Core::ApList& fresh,
               const Core::ApList& cached);

    ScanCallback callback() {
        return [this](const ScanLoopState& loop, Core::ResultCode code, const Core::RecentApList&,
                      const Core::ApList& fresh,
                      const Core::ApList& cached) { return onScan(loop, code, fresh, cached); };
    }

    uint32_t periodMs() const { return periodMs_; }

  private:
    SPI::Logger& log_;
    uint32_t periodMs_;
    LocationCallback callback_;
    Core::LocationDetermination& local_;
    LocationSmoother& smoother_;
    std::unique_ptr<Core::LocationRecord> previous_;  // the last delivered location
};

}  // namespace ZEL::API

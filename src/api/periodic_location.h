// Periodic location: one on-device determination per scan period, each handed to
// the caller's callback, and the process-wide smoother it passes through.
#pragma once

#include <deque>
#include <memory>

#include "api/location_determination.h"
#include "api/scan_loop.h"
#include "spi/log.h"
#include "zelapi.h"

namespace ZEL::API {

// Keeps a short history of delivered positions. The history is emptied on every
// call, so each delivered position is the period's own determination; the record
// passed in is never changed.
class LocationSmoother {
  public:
    virtual ~LocationSmoother() = default;

    // Records `location` at `timeMs` (ms since the epoch). Returns 0.
    virtual int smooth(uint64_t timeMs, const LocationRecord& location);

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

// The state of one ZEL_periodic_location call. `onScan` is the scan loop's callback.
class PeriodicLocationState {
  public:
    PeriodicLocationState(uint32_t periodMs, ZEL_LocationCallback callback, void* argument,
                          LocationDetermination& local, LocationSmoother& smoother);

    int onScan(const ScanLoopState& loop, int code, const ApList& fresh, const ApList& cached);

    ScanCallback callback() {
        return [this](const ScanLoopState& loop, int code, const RecentApList&, const ApList& fresh,
                      const ApList& cached) { return onScan(loop, code, fresh, cached); };
    }

    uint32_t periodMs() const { return periodMs_; }

  private:
    log4cpp::Category& log_;
    uint32_t periodMs_;
    ZEL_LocationCallback callback_;
    void* argument_;
    LocationDetermination& local_;
    LocationSmoother& smoother_;
    std::unique_ptr<LocationRecord> previous_;  // the last delivered location
};

}  // namespace ZEL::API

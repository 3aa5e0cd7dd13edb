#include "api/periodic_location.h"

namespace ZEL::API {

int LocationSmoother::smooth(uint64_t timeMs, const LocationRecord& location) {
    const bool repeated = !history_.empty() && history_.front().latitude == location.latitude &&
                          history_.front().longitude == location.longitude &&
                          history_.front().hpe == location.hpe;
    if (!repeated) {
        history_.push_front(Sample{timeMs, location.latitude, location.longitude, location.hpe,
                                   location.nap, location.speed, location.bearing});
    }
    // Deliberately emptied: periodic results are the raw per-period determinations.
    history_.clear();
    return 0;
}

PeriodicLocationState::PeriodicLocationState(uint32_t periodMs, ZEL_LocationCallback callback,
                                             void* argument, LocationDetermination& local,
                                             LocationSmoother& smoother)
    : log_(SPI::getCategory("ZEL_periodic_location")),
      periodMs_(periodMs == 0 ? 1 : periodMs),
      callback_(callback),
      argument_(argument),
      local_(local),
      smoother_(smoother) {}

int PeriodicLocationState::onScan(const ScanLoopState& loop, int code, const ApList& fresh,
                                  const ApList& cached) {
    if (code != ZEL_OK) {
        return callback_(argument_, code, nullptr);
    }
    ApList aps = fresh;
    aps.insert(aps.end(), cached.begin(), cached.end());
    LocationRecord location;
    int result = local_.determine(previous_.get(), aps, location);
    if (result != ZEL_OK) {
        ZEL_LOG_DEBUG(log_, "Couldn't determine location: %d", result);
        // Failures within the first period stay silent.
        if (SPI::tickCount() - loop.startTick >= periodMs_) {
            return callback_(argument_, result, nullptr);
        }
        return 1;
    }
    ZEL_LOG_DEBUG(log_, "location: %f, %f +/-%.1fm %d", location.latitude, location.longitude,
                  location.hpe, location.nap);
    smoother_.smooth(SPI::currentTime().totalMilliseconds(), location);
    ZEL_LOG_INFO(log_, "smoothed location: %f, %f +/-%.1fm %.2fkm/h %.2f", location.latitude,
                 location.longitude, location.hpe, location.speed, location.bearing);
    ZEL_Location* record = makeCallerLocation(location);
    if (record == nullptr) {
        ZEL_LOG_ERROR(log_, "out of memory for the caller's location");
        return callback_(argument_, ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED, nullptr);
    }
    int answer = callback_(argument_, ZEL_OK, record);
    freeCallerLocation(record);
    previous_ = std::make_unique<LocationRecord>(std::move(location));
    return answer;
}

}  // namespace ZEL::API

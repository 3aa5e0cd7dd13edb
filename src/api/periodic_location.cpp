#include "api/periodic_location.h"

#include "spi/platform.h"

namespace ZEL::API {

int LocationSmoother::smooth(uint64_t timeMs, const Core::LocationRecord& location) {
    const bool repeated = !history_.empty() && history_.front().latitude == location.latitude &&
                          history_.front().longitude == location.longitude &&
                          history_.front().hpe == location.hpe;
    if (!repeated) {
        history_.push_front(Sample{timeMs, location.latitude, location.longitude, location.hpe,
                                   location.nap, location.speed, location.bearing});
    }
    // Kept on purpose, as the library has always behaved: the history is emptied, so
    // periodic results are the raw per-period determinations.
    history_.clear();
    return 0;
}

PeriodicLocationState::PeriodicLocationState(uint32_t periodMs, LocationCallback callback,
                                             Core::LocationDetermination& local,
                                             LocationSmoother& smoother)
    : log_(SPI::getLogger("ZEL_periodic_location")),
      periodMs_(periodMs == 0 ? 1 : periodMs),
      callback_(std::move(callback)),
      local_(local),
      smoother_(smoother) {}

int PeriodicLocationState::onScan(const ScanLoopState& loop, Core::ResultCode code,
                                  const Core::ApList& fresh, const Core::ApList& cached) {
    if (code != Core::ResultCode::kOk) {
        return callback_(code, nullptr);
    }
    Core::ApList aps = fresh;
    aps.insert(aps.end(), cached.begin(), cached.end());
    Core::LocationRecord location;
    Core::ResultCode result = local_.determine(previous_.get(), aps, location);
    if (result != Core::ResultCode::kOk) {
        ZEL_LOG_DEBUG(log_, "Couldn't determine location: %d", Core::toInt(result));
        // Failures within the first period stay silent.
        if (SPI::tickCount() - loop.startTick >= periodMs_) {
            return callback_(result, nullptr);
        }
        return 1;
    }
    ZEL_LOG_DEBUG(log_, "location: %f, %f +/-%.1fm %d", location.latitude, location.longitude,
                  location.hpe, location.nap);
    smoother_.smooth(SPI::currentTime().totalMilliseconds(), location);
    ZEL_LOG_INFO(log_, "smoothed location: %f, %f +/-%.1fm %.2fkm/h %.2f", location.latitude,
                 location.longitude, location.hpe, location.speed, location.bearing);
    int answer = callback_(Core::ResultCode::kOk, &location);
    previous_ = std::make_unique<Core::LocationRecord>(std::move(location));
    return answer;
}

}  // namespace ZEL::API

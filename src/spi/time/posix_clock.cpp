#include "spi/time/posix_clock.h"

#include <cerrno>
#include <ctime>

namespace ZEL::SPI {
namespace {

// CLOCK_REALTIME for time stamps, CLOCK_MONOTONIC for the tick count.
class PosixClock final : public Clock {
  public:
    Core::TimeStamp now() override {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        uint64_t ms = uint64_t(ts.tv_sec) * 1000 + uint64_t(ts.tv_nsec) / 1'000'000;
        return Core::TimeStamp::fromMilliseconds(ms);
    }

    uint32_t tickCount() override {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return static_cast<uint32_t>(uint64_t(ts.tv_sec) * 1000 + uint64_t(ts.tv_nsec) / 1'000'000);
    }

    void sleep(uint32_t ms) override {
        timespec request{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
        while (nanosleep(&request, &request) != 0 && errno == EINTR) {
        }
    }
};

}  // namespace

Clock& posixClock() {
    static PosixClock instance;
    return instance;
}

}  // namespace ZEL::SPI

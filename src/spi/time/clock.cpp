#include "spi/clock.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace ZEL::SPI {
namespace {

class SystemClock final : public Clock {
  public:
    TimeStamp now() override {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        uint64_t ms = uint64_t(ts.tv_sec) * 1000 + uint64_t(ts.tv_nsec) / 1'000'000;
        return TimeStamp::fromMilliseconds(ms);
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

std::atomic<Clock*> installed{nullptr};

}  // namespace

Clock& systemClock() {
    static SystemClock instance;
    return instance;
}

Clock& clock() {
    Clock* current = installed.load(std::memory_order_acquire);
    return current ? *current : systemClock();
}

Clock* setClock(Clock* replacement) {
    Clock* previous = installed.exchange(replacement, std::memory_order_acq_rel);
    return previous;
}

}  // namespace ZEL::SPI

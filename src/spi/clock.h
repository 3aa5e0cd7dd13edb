// The one clock through which the whole engine reads time.
//
// Every age, tick and sleep in the library goes through `clock()`, so that a test
// or a replay tool can decide what "now" is and sleeping takes no real time.
#pragma once

#include <cstdint>

namespace ZEL::SPI {

// Wall-clock time: whole seconds since 1970-01-01 00:00:00 UTC and the
// milliseconds (0..999) of the second. The 8-byte time field of a scan record.
struct TimeStamp {
    uint32_t seconds = 0;
    uint32_t milliseconds = 0;

    friend bool operator==(const TimeStamp&, const TimeStamp&) = default;
    uint64_t totalMilliseconds() const { return uint64_t{seconds} * 1000 + milliseconds; }
    static TimeStamp fromMilliseconds(uint64_t ms) {
        return TimeStamp{static_cast<uint32_t>(ms / 1000), static_cast<uint32_t>(ms % 1000)};
    }
};

// Milliseconds from `then` to `now`, computed in 32-bit arithmetic as
// (now.s - then.s) * 1000 - then.ms + now.ms and held signed: an age from a newer
// stamp to an older one is negative.
inline int32_t ageMs(const TimeStamp& now, const TimeStamp& then) {
    uint32_t age = (now.seconds - then.seconds) * 1000u - then.milliseconds + now.milliseconds;
    return static_cast<int32_t>(age);
}

// Contract: implementations may be called from any thread the library runs on;
// calls are serialised by the API lock, so they need no lock of their own.
class Clock {
  public:
    virtual ~Clock() = default;
    // Current wall-clock time (UTC).
    virtual TimeStamp now() = 0;
    // Millisecond tick count for durations; unsigned 32-bit, wraps.
    virtual uint32_t tickCount() = 0;
    // Blocks the calling thread for `ms` milliseconds.
    virtual void sleep(uint32_t ms) = 0;
};

// The clock in force: the system clock unless a test or a tool installed another.
Clock& clock();

// Installs `replacement` as the process clock (not owned; it must outlive its use)
// and returns the previous one. Null restores the system clock.
Clock* setClock(Clock* replacement);

// The real clock: CLOCK_REALTIME for time stamps, CLOCK_MONOTONIC for ticks.
Clock& systemClock();

// Current time through the process clock.
inline TimeStamp currentTime() {
    return clock().now();
}
inline uint32_t tickCount() {
    return clock().tickCount();
}

}  // namespace ZEL::SPI

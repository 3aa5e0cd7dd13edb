// Wall-clock time as the library stamps scans, records and cache entries.
#pragma once

#include <cstdint>

namespace ZEL::Core {

// Whole seconds since 1970-01-01 00:00:00 UTC and the milliseconds (0..999) of the
// second: the 8-byte time field of a scan record.
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

}  // namespace ZEL::Core

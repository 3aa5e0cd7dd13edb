// The clock through which the whole engine reads time.
//
// Every age, tick and sleep in the library goes through the platform's clock, so
// that a test or a replay tool can decide what "now" is and sleeping takes no time.
#pragma once

#include <cstdint>

#include "core/time_stamp.h"

namespace ZEL::SPI {

// Contract: implementations may be called from any thread the library runs on;
// calls are serialised by the API lock, so they need no lock of their own.
class Clock {
  public:
    virtual ~Clock() = default;
    // Current wall-clock time (UTC).
    virtual Core::TimeStamp now() = 0;
    // Millisecond tick count for durations; unsigned 32-bit, wraps.
    virtual uint32_t tickCount() = 0;
    // Blocks the calling thread for `ms` milliseconds.
    virtual void sleep(uint32_t ms) = 0;
};

}  // namespace ZEL::SPI

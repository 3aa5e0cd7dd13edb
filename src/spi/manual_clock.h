// A clock whose time moves only when told to: tests and replay tools set it.
#pragma once

#include "spi/platform.h"

namespace ZEL::SPI {

// Time stands still until `advance` or `set` moves it; `sleep` advances it by the
// requested duration instead of blocking. The tick count is the number of
// milliseconds since the clock was made, starting at `startTick` and wrapping at 2^32.
class ManualClock final : public Clock {
  public:
    explicit ManualClock(uint64_t epochMs = 1'700'000'000'000ull, uint32_t startTick = 1000)
        : nowMs_(epochMs), startTick_(startTick), epochAtStart_(epochMs) {}

    Core::TimeStamp now() override { return Core::TimeStamp::fromMilliseconds(nowMs_); }
    uint32_t tickCount() override {
        return startTick_ + static_cast<uint32_t>(nowMs_ - epochAtStart_);
    }
    void sleep(uint32_t ms) override {
        sleptMs_ += ms;
        nowMs_ += ms;
    }

    void advance(uint64_t ms) { nowMs_ += ms; }
    // Jumps to `epochMs`; the tick count follows (it may move backwards, as a
    // replay of recorded times may).
    void set(uint64_t epochMs) { nowMs_ = epochMs; }
    uint64_t nowMs() const { return nowMs_; }
    // Total time requested through `sleep`.
    uint64_t sleptMs() const { return sleptMs_; }

  private:
    uint64_t nowMs_;
    uint32_t startTick_;
    uint64_t epochAtStart_;
    uint64_t sleptMs_ = 0;
};

// Installs a platform that is the one in force but for its clock, for the lifetime
// of this object, then restores the previous one.
class ScopedClock {
  public:
    explicit ScopedClock(Clock& replacement)
        : withClock_(platform(), replacement), scoped_(withClock_) {}

  private:
    class WithClock final : public PlatformWrapper {
      public:
        WithClock(Platform& target, Clock& clock) : PlatformWrapper(target), clock_(clock) {}
        Clock& clock() override { return clock_; }

      private:
        Clock& clock_;
    };
    WithClock withClock_;
    ScopedPlatform scoped_;
};

}  // namespace ZEL::SPI

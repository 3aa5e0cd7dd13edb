#include "spi/time/win32_clock.h"

#include <windows.h>

namespace ZEL::SPI {
namespace {

// Milliseconds from 1601-01-01 (the file-time epoch) to 1970-01-01, from the two
// calendar dates, as the system converts them.
uint64_t epochOffsetMilliseconds() {
    SYSTEMTIME unix{1970, 1, 4, 1, 0, 0, 0, 0};
    SYSTEMTIME windows{1601, 1, 1, 1, 0, 0, 0, 0};
    FILETIME unixTime{}, windowsTime{};
    SystemTimeToFileTime(&unix, &unixTime);
    SystemTimeToFileTime(&windows, &windowsTime);
    auto count = [](const FILETIME& time) {
        return (uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
    };
    return (count(unixTime) - count(windowsTime)) / 10000;
}

// The UTC system time for time stamps, GetTickCount for the tick count.
class Win32Clock final : public Clock {
  public:
    Core::TimeStamp now() override {
        FILETIME time{};
        GetSystemTimeAsFileTime(&time);
        uint64_t since1601 = ((uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime) / 10000;
        return Core::TimeStamp::fromMilliseconds(since1601 - epochOffset_);
    }

    uint32_t tickCount() override { return GetTickCount(); }

    void sleep(uint32_t ms) override { Sleep(ms); }

  private:
    const uint64_t epochOffset_ = epochOffsetMilliseconds();
};

}  // namespace

Clock& win32Clock() {
    static Win32Clock instance;
    return instance;
}

}  // namespace ZEL::SPI

// The scan loop: drives one Wi-Fi adapter through scans at a fixed period and hands
// each scan to a callback that decides whether to go on.
#pragma once

#include <cstdint>
#include <functional>

#include "api/ap_list.h"
#include "spi/wifi_adapter.h"

namespace ZEL::API {

// What every callback receives about the loop; callbacks measure their elapsed time
// from `startTick` (ms, the clock's wrapping tick count).
struct ScanLoopState {
    uint32_t startTick = 0;
};

// Called after every cycle. `code` 0: a scan was read, with the recent list (before
// this cycle's merge), the APs new in this cycle and those of this cycle already heard
// in the last 5000 ms. `code` 2: the adapter failed and both lists are empty.
// Return non-zero to go on, 0 to stop.
using ScanCallback =
    std::function<int(const ScanLoopState& state, int code, const RecentApList& recent,
                      const ApList& fresh, const ApList& cached)>;

class ScanLoop {
  public:
    // `enumerate` finds the adapters; the loop uses the first.
    explicit ScanLoop(SPI::Wifi::AdapterEnumerator enumerate = SPI::Wifi::enumerateAdapters);

    // Runs until the callback returns 0, the adapter fails for good, or — when
    // `periods` is not 0 — more than periodMs * periods ms have elapsed.
    // Returns 0, or 2 (ZEL_ERROR_WIFI) when the adapter could not be found, opened
    // or re-opened, or the callback stopped on an adapter failure.
    int run(uint32_t periodMs, uint32_t periods, const ScanCallback& callback);

  private:
    SPI::Wifi::AdapterEnumerator enumerate_;
};

}  // namespace ZEL::API

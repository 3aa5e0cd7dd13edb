// The scan loop: drives one Wi-Fi adapter through scans at a fixed period and hands
// each scan to a callback that decides whether to go on.
#pragma once

#include <cstdint>
#include <functional>

#include "core/ap_list.h"
#include "core/result_code.h"

namespace ZEL::API {

// What every callback receives about the loop; callbacks measure their elapsed time
// from `startTick` (ms, the clock's wrapping tick count).
struct ScanLoopState {
    uint32_t startTick = 0;
};

// Called after every cycle. `code` kOk: a scan was read, with the recent list (before
// this cycle's merge), the APs new in this cycle and those of this cycle already heard
// in the last 5000 ms. `code` kWifiFailure: the adapter failed and both lists are empty.
// Return non-zero to go on, 0 to stop.
using ScanCallback = std::function<int(const ScanLoopState& state, Core::ResultCode code,
                                       const Core::RecentApList& recent, const Core::ApList& fresh,
                                       const Core::ApList& cached)>;

class ScanLoop {
  public:
    // Runs until the callback returns 0, the adapter fails for good, or — when
    // `periods` is not 0 — more than periodMs * periods ms have elapsed.
    // Uses the platform's first Wi-Fi adapter. Returns kOk, or kWifiFailure when the
    // adapter could not be found, opened or re-opened, or the callback stopped on an
    // adapter failure.
    static Core::ResultCode run(uint32_t periodMs, uint32_t periods, const ScanCallback& callback);
};

}  // namespace ZEL::API

#include "api/scan_loop.h"

#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::API {
namespace {

using Core::ResultCode;
using SPI::WifiAdapter;

// One run of the loop: the adapter, the lists and the log, with every exit path
// closing the adapter.
class LoopRun {
  public:
    LoopRun(std::unique_ptr<WifiAdapter> adapter, const ScanCallback& callback, uint32_t startTick)
        : log_(SPI::getLogger("ZEL_periodic_scan")),
          adapter_(std::move(adapter)),
          callback_(callback),
          state_{startTick} {}

    ~LoopRun() { adapter_->close(); }

    // Reports an adapter failure to the callback. Returns true when the loop goes on
    // with a freshly re-opened adapter, false when it must return ResultCode::kWifiFailure.
    bool recover() {
        if (callback_(state_, ResultCode::kWifiFailure, recent_, Core::ApList{}, Core::ApList{}) ==
            0) {
            ZEL_LOG_DEBUG(log_, "stopping");
            return false;
        }
        ZEL_LOG_DEBUG(log_, "resetting Wi-Fi adapter");
        adapter_->close();
        if (adapter_->open() != 0) {
            ZEL_LOG_ERROR(log_, "couldn't re-open Wi-Fi adapter");
            return false;
        }
        return true;
    }

    ResultCode run(uint32_t periodMs, uint32_t periods) {
        const uint32_t duration = periodMs * periods;
        if (adapter_->startScan() != 0) {
            ZEL_LOG_ERROR(log_, "couldn't start scanning");
            if (callback_(state_, ResultCode::kWifiFailure, recent_, Core::ApList{},
                          Core::ApList{}) == 0) {
                ZEL_LOG_DEBUG(log_, "stopping");
                return ResultCode::kWifiFailure;
            }
        }
        SPI::platform().clock().sleep(50);
        for (;;) {
            ZEL_LOG_DEBUG(log_, "elapsed = %lu", static_cast<unsigned long>(elapsed()));
            Core::ApList fresh;
            if (adapter_->getScanResults(fresh) != 0) {
                ZEL_LOG_ERROR(log_, "couldn't get scanned AP list");
                if (!recover()) {
                    return ResultCode::kWifiFailure;
                }
                fresh.clear();
            } else if (!handOver(fresh)) {
                ZEL_LOG_DEBUG(log_, "stopping");
                return ResultCode::kOk;
            }

            uint32_t now = elapsed();
            ZEL_LOG_DEBUG(log_, "elapsed = %lu, duration = %lu", static_cast<unsigned long>(now),
                          static_cast<unsigned long>(duration));
            if (periods != 0 && now > duration) {
                return ResultCode::kOk;
            }
            if (adapter_->startScan() != 0) {
                ZEL_LOG_ERROR(log_, "couldn't restart scanning");
                if (!recover()) {
                    return ResultCode::kWifiFailure;
                }
            }
            recent_.merge(fresh, SPI::currentTime());
            uint32_t sleepMs = periodMs - elapsed() % periodMs;
            ZEL_LOG_DEBUG(log_, "sleeping for %lu ms...", static_cast<unsigned long>(sleepMs));
            SPI::platform().clock().sleep(sleepMs);
        }
    }

  private:
    uint32_t elapsed() const { return SPI::tickCount() - state_.startTick; }

    // Logs the cycle's lists, splits off the recently heard APs and calls back.
    // Returns false when the callback asked to stop. `fresh` keeps the new APs.
    bool handOver(Core::ApList& fresh) {
        ZEL_LOG_DEBUG(log_, "old APs %d: %s", static_cast<int>(recent_.size()),
                      toText(recent_).c_str());
        ZEL_LOG_DEBUG(log_, "new APs %d: %s", static_cast<int>(fresh.size()),
                      toText(fresh).c_str());
        Core::unique(fresh);
        ZEL_LOG_DEBUG(log_, "new (unique) APs %d: %s", static_cast<int>(fresh.size()),
                      toText(fresh).c_str());
        Core::ApList cached;
        Core::filter(recent_, SPI::currentTime(), fresh, cached);
        ZEL_LOG_INFO(log_, "new (filtered) APs %d: %s", static_cast<int>(fresh.size()),
                     toText(fresh).c_str());
        ZEL_LOG_INFO(log_, "cached APs %d: %s", static_cast<int>(cached.size()),
                     toText(cached).c_str());
        return callback_(state_, ResultCode::kOk, recent_, fresh, cached) != 0;
    }

    SPI::Logger& log_;
    std::unique_ptr<WifiAdapter> adapter_;
    const ScanCallback& callback_;
    ScanLoopState state_;
    Core::RecentApList recent_{Core::kRecentMaxAgeMs};
};

}  // namespace

ResultCode ScanLoop::run(uint32_t periodMs, uint32_t periods, const ScanCallback& callback) {
    SPI::Logger& log = SPI::getLogger("ZEL_periodic_scan");
    const uint32_t startTick = SPI::tickCount();
    if (periodMs == 0) {
        periodMs = 1;  // the sleep to the next boundary divides by the period
    }
    SPI::AdapterList adapters = SPI::platform().wifiAdapters();
    if (adapters.empty() || !adapters.front()) {
        ZEL_LOG_ERROR(log, "couldn't find any Wi-Fi adapters");
        return ResultCode::kWifiFailure;
    }
    std::unique_ptr<SPI::WifiAdapter> adapter = std::move(adapters.front());
    ZEL_LOG_DEBUG(log, "about to open Wi-Fi adapter");
    if (adapter->open() != 0) {
        ZEL_LOG_ERROR(log, "couldn't open Wi-Fi adapter");
        return ResultCode::kWifiFailure;
    }
    ZEL_LOG_DEBUG(log, "opened Wi-Fi adapter: %s", adapter->name().c_str());
    ZEL_LOG_INFO(log, "start scanning with %s", adapter->name().c_str());
    LoopRun loop(std::move(adapter), callback, startTick);
    return loop.run(periodMs, periods);
}

}  // namespace ZEL::API

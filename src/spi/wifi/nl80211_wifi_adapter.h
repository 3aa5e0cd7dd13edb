// The Linux Wi-Fi adapter: scans through the kernel's nl80211 interface.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "spi/clock.h"
#include "spi/wifi/nl80211_messages.h"
#include "spi/wifi/nl80211_socket.h"
#include "spi/wifi/posix_scan_lock.h"
#include "spi/wifi_adapter.h"

namespace ZEL::SPI {

struct Nl80211Options {
    // The system-wide scan lock file.
    std::string lockPath = ScanLock::defaultPath();
    // How long a triggered scan may go without its end event before the scan lock
    // is given back anyway, so that an event lost (a socket overrun) cannot stop
    // this adapter's scanning for good. A full scan takes a few seconds on real
    // hardware (passive channels dominate).
    uint32_t scanTimeoutMs = 10000;
    // Times the scans and stamps the results; the system clock when null.
    Clock* clock = nullptr;
    // Opens one socket to nl80211 (the adapter opens two: commands and events);
    // Nl80211Socket::connect when empty.
    std::function<std::unique_ptr<Nl80211Channel>(int& error, std::string& reason)> connect;
};

// The station-mode wireless interfaces that are up, in the kernel's order. Other
// interfaces are skipped with a debug line saying why; no nl80211 in the kernel
// gives an empty list.
AdapterList enumerateNl80211Adapters(const Nl80211Options& options = {});

// One station interface. Errors are positive errno values. Neither startScan nor
// getScanResults waits for a scan: startScan triggers one and returns, and
// getScanResults reads at once what the kernel has heard in the last
// Core::kRecentMaxAgeMs, each access point stamped with when it was last heard;
// a triggered scan's results show in a later read. startScan takes the scan lock,
// held until a read after the scan's end event (or close), so the next trigger is
// not refused as busy.
class Nl80211WifiAdapter final : public WifiAdapter {
  public:
    Nl80211WifiAdapter(InterfaceInfo interface, const Nl80211Options& options);
    ~Nl80211WifiAdapter() override;

    std::string name() const override { return interface_.name; }
    int open() override;
    void close() override;
    int startScan() override;
    int getScanResults(Core::ApList& list) override;

  private:
    std::unique_ptr<Nl80211Channel> connectOrLog(int& error);
    int finishTrigger(int error);
    // Our scan is over (or given up): no longer pending, the lock given back.
    void endScan();
    // Reads the queued events without waiting; ends the scan on its end event, or
    // once scanTimeoutMs has passed without one.
    void checkScanEnd();
    int dumpScan(std::vector<BssEntry>& entries);

    Logger& log_;
    InterfaceInfo interface_;
    uint32_t scanTimeoutMs_;
    Clock& clock_;
    decltype(Nl80211Options::connect) connect_;
    ScanLock lock_;
    std::unique_ptr<Nl80211Channel> commands_;
    std::unique_ptr<Nl80211Channel> events_;  // the "scan" multicast group
    bool scanPending_ = false;                // our triggered scan has not ended
    uint32_t triggeredTick_ = 0;
    bool permissionLogged_ = false;
};

}  // namespace ZEL::SPI

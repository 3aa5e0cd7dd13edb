// The Linux Wi-Fi adapter: scans through the kernel's nl80211 interface.
#pragma once

#include <cstdint>
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
    // How long getScanResults waits for a pending scan to end. A full scan takes a
    // few seconds on real hardware (passive channels dominate); after the wait the
    // kernel's results are read as they stand.
    uint32_t scanTimeoutMs = 10000;
    // Times the waits and stamps the results; the system clock when null.
    Clock* clock = nullptr;
};

// The station-mode wireless interfaces that are up, in the kernel's order. Other
// interfaces are skipped with a debug line saying why; no nl80211 in the kernel
// gives an empty list.
AdapterList enumerateNl80211Adapters(const Nl80211Options& options = {});

// One station interface. Errors are positive errno values. startScan takes the scan
// lock and holds it until getScanResults has read the results or close.
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
    int finishTrigger(int error);
    void releaseLock();
    void waitForScanEnd();
    int dumpScan(std::vector<BssEntry>& entries);

    Logger& log_;
    InterfaceInfo interface_;
    uint32_t scanTimeoutMs_;
    Clock& clock_;
    ScanLock lock_;
    std::unique_ptr<Nl80211Socket> commands_;
    std::unique_ptr<Nl80211Socket> events_;  // the "scan" multicast group
    bool scanPending_ = false;
    bool permissionLogged_ = false;
};

}  // namespace ZEL::SPI

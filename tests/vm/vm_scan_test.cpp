// Runs inside the test VM, against the kernel's nl80211 and mac80211_hwsim radios.
// The VM's configuration directory (ZEL_VM_CONFIG, default /etc/zel-vm) holds
//   aps      a line per access point: interface, BSSID, SSID, channel, and the signal
//            (dBm) the VM's medium gives its frames, which the station must report
//   station  the station interface's name
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "spi/platform.h"
#include "spi/wifi/nl80211_wifi_adapter.h"

namespace ZEL::SPI {
namespace {

std::ifstream config(const char* name) {
    const char* directory = std::getenv("ZEL_VM_CONFIG");
    return std::ifstream(std::string(directory ? directory : "/etc/zel-vm") + "/" + name);
}

// The station is the only adapter. (What it hears, the VM's locate tests check:
// their positions come from every access point's signal and nothing else.)
TEST(VmScan, OnlyTheStationWhichReadsWhatTheKernelHeardWithinTheLast30s) {
    AdapterList adapters = enumerateNl80211Adapters();
    std::string station;
    config("station") >> station;
    ASSERT_EQ(adapters.size(), 1u);
    EXPECT_EQ(adapters[0]->name(), station);
    ASSERT_EQ(adapters[0]->open(), 0);
    Core::TimeStamp before = platform().clock().now();
    ASSERT_EQ(adapters[0]->startScan(), 0);
    Core::ApList list;
    ASSERT_EQ(adapters[0]->getScanResults(list), 0);
    Core::TimeStamp after = platform().clock().now();
    EXPECT_FALSE(list.empty());
    for (const Core::ScannedAP& ap : list) {
        // Heard in the VM's set-up scans or since: the kernel's last-seen stamp
        // places it within the last 30 s, never in the future.
        EXPECT_GE(ap.time.totalMilliseconds() + 30000, before.totalMilliseconds());
        EXPECT_LE(ap.time.totalMilliseconds(), after.totalMilliseconds());
    }
}

}  // namespace
}  // namespace ZEL::SPI

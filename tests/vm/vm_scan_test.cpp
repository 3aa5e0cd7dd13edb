// Runs inside the test VM, against the kernel's nl80211 and mac80211_hwsim radios.
// The VM's configuration directory (ZEL_VM_CONFIG, default /etc/zel-vm) holds
//   aps      a line per access point: interface, BSSID, SSID, channel, and the signal
//            (dBm) the VM's medium gives its frames, which the station must report
//   station  the station interface's name
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "spi/platform.h"
#include "spi/wifi/nl80211_wifi_adapter.h"

namespace ZEL::SPI {
namespace {

std::ifstream config(const char* name) {
    const char* directory = std::getenv("ZEL_VM_CONFIG");
    return std::ifstream(std::string(directory ? directory : "/etc/zel-vm") + "/" + name);
}

// MAC text as printed by Core::macText -> SSID and signal the station must hear.
std::map<std::string, std::pair<std::string, int>> expectedAps() {
    std::map<std::string, std::pair<std::string, int>> aps;
    std::ifstream file = config("aps");
    std::string line, interface, bssid, ssid;
    int channel = 0, rss = 0;
    while (std::getline(file, line)) {
        if (std::istringstream(line) >> interface >> bssid >> ssid >> channel >> rss) {
            aps[Core::macText(Core::parseMacText(bssid).value())] = {ssid, rss};
        }
    }
    return aps;
}

// The station: the only adapter enumerated (as the first test checks).
std::unique_ptr<WifiAdapter> stationAdapter() {
    AdapterList adapters = enumerateNl80211Adapters();
    return adapters.empty() ? nullptr : std::move(adapters[0]);
}

// `list` holds exactly the configured access points (no ad-hoc network), as set up.
void expectExactlyTheAccessPoints(const Core::ApList& list, const char* label) {
    auto expected = expectedAps();
    ASSERT_FALSE(expected.empty()) << "no access points configured";
    std::map<std::string, std::pair<std::string, int>> heard;
    for (const Core::ScannedAP& ap : list) {
        EXPECT_TRUE(heard.emplace(Core::macText(ap.mac), std::pair{ap.ssidText(), ap.rss}).second)
            << label << ": twice " << Core::macText(ap.mac);
    }
    EXPECT_EQ(heard, expected) << label;
}

TEST(VmScan, EnumeratesOnlyTheStationInterface) {
    AdapterList adapters = enumerateNl80211Adapters();
    std::string station;
    config("station") >> station;
    ASSERT_EQ(adapters.size(), 1u);
    EXPECT_EQ(adapters[0]->name(), station);
}

TEST(VmScan, HearsExactlyTheAccessPointsWithTheirSignals) {
    auto adapter = stationAdapter();
    ASSERT_TRUE(adapter);
    ASSERT_EQ(adapter->open(), 0);
    Core::TimeStamp before = platform().clock().now();
    ASSERT_EQ(adapter->startScan(), 0);
    Core::ApList list;
    ASSERT_EQ(adapter->getScanResults(list), 0);
    Core::TimeStamp after = platform().clock().now();
    expectExactlyTheAccessPoints(list, "scan");
    for (const Core::ScannedAP& ap : list) {
        // Heard in this scan or one of the VM's set-up scans: the kernel keeps a
        // BSS for 30 s, and its age places it in that window, never in the future.
        EXPECT_GE(ap.time.totalMilliseconds() + 30000, before.totalMilliseconds());
        EXPECT_LE(ap.time.totalMilliseconds(), after.totalMilliseconds());
    }
}

}  // namespace
}  // namespace ZEL::SPI

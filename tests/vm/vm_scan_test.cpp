// Runs inside the test VM, against the kernel's real nl80211 and mac80211_hwsim
// radios: access points started by the VM's init script, one station to scan with.
//
// The VM's configuration directory (ZEL_VM_CONFIG, default /etc/zel-vm) holds
//   aps      one access point a line: interface, BSSID, SSID, channel, and the signal
//            (dBm) the VM's medium gives its frames, which the station must report
//   station  the station interface's name
//   ibss     the ad-hoc interface's name, SSID and frequency, if one was started
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

#include "api/scan_loop.h"
#include "spi/log.h"
#include "spi/platform.h"
#include "spi/wifi/nl80211_wifi_adapter.h"
#include "spi/wifi/posix_scan_lock.h"
#include "support/log_capture.h"

namespace ZEL::SPI {
namespace {

const char kCategory[] = "ZEL.SPI.WifiAdapter.Nl80211WifiAdapter";

struct ExpectedAp {
    std::string interface, ssid;
    int channel = 0;
    int rss = 0;
};

std::string configPath(const char* name) {
    const char* directory = std::getenv("ZEL_VM_CONFIG");
    return std::string(directory ? directory : "/etc/zel-vm") + "/" + name;
}

// MAC text as printed by Core::macText -> what the station must hear there.
std::map<std::string, ExpectedAp> expectedAps() {
    std::map<std::string, ExpectedAp> aps;
    std::ifstream file(configPath("aps"));
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        ExpectedAp ap;
        std::string bssid;
        if (fields >> ap.interface >> bssid >> ap.ssid >> ap.channel >> ap.rss) {
            aps[Core::macText(Core::parseMacText(bssid).value())] = ap;
        }
    }
    return aps;
}

std::string firstWord(const char* name, size_t index = 0) {
    std::ifstream file(configPath(name));
    std::string word;
    for (size_t i = 0; i <= index && file >> word; ++i) {
    }
    return word;
}

std::unique_ptr<WifiAdapter> stationAdapter() {
    for (auto& adapter : enumerateNl80211Adapters()) {
        if (adapter->name() == firstWord("station")) {
            return std::move(adapter);
        }
    }
    return nullptr;
}

// Checks that `list` holds exactly the configured access points with their
// signals, and prints what was heard.
void expectExactlyTheAccessPoints(const Core::ApList& list, const char* label) {
    auto expected = expectedAps();
    ASSERT_FALSE(expected.empty()) << "no access points configured";
    std::map<std::string, const Core::ScannedAP*> heard;
    for (const Core::ScannedAP& ap : list) {
        std::printf("%s: heard %s %d dBm \"%s\"\n", label, Core::macText(ap.mac).c_str(), ap.rss,
                    ap.ssidText().c_str());
        EXPECT_TRUE(heard.emplace(Core::macText(ap.mac), &ap).second)
            << "twice: " << Core::macText(ap.mac);
    }
    for (const auto& [mac, ap] : expected) {
        auto found = heard.find(mac);
        if (found == heard.end()) {
            ADD_FAILURE() << label << ": " << mac << " (" << ap.ssid << ") not heard";
            continue;
        }
        EXPECT_EQ(found->second->rss, ap.rss) << mac;
        EXPECT_EQ(found->second->ssidText(), ap.ssid);
    }
    for (const auto& [mac, ap] : heard) {
        EXPECT_TRUE(expected.count(mac)) << label << ": unexpected " << mac;
    }
}

TEST(VmScan, EnumeratesOnlyTheStationInterface) {
    Testing::LogCapture log(kCategory);
    AdapterList adapters = enumerateNl80211Adapters();
    ASSERT_EQ(adapters.size(), 1u);
    EXPECT_EQ(adapters[0]->name(), firstWord("station"));
    for (const auto& [mac, ap] : expectedAps()) {
        EXPECT_TRUE(log.contains(ap.interface + ": interface type is not station (3)"))
            << ap.interface;
    }
    if (!firstWord("ibss").empty()) {
        EXPECT_TRUE(log.contains(firstWord("ibss") + ": interface type is not station (1)"));
    }
}

TEST(VmScan, HearsExactlyTheAccessPointsWithTheirSignals) {
    auto adapter = stationAdapter();
    ASSERT_TRUE(adapter);
    ASSERT_EQ(adapter->open(), 0);
    Testing::LogCapture log(kCategory);
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
    EXPECT_TRUE(log.contains(adapter->name() + ": scan finished"));
    if (!firstWord("ibss").empty()) {
        // The ad-hoc network is in the kernel's list but not in ours.
        std::string ibssSsid = firstWord("ibss", 1);
        bool skipped = false;
        std::string texts;
        for (const std::string& text : log.texts()) {
            skipped |= text.find("(" + ibssSsid + ") not infrastructure") != std::string::npos;
            texts += text + "\n";
        }
        EXPECT_TRUE(skipped) << "no ad-hoc entry skipped; the log:\n" << texts;
    }
}

TEST(VmScan, SecondAdapterWaitsForTheScanUnderWay) {
    auto first = stationAdapter();
    auto second = stationAdapter();
    ASSERT_TRUE(first && second);
    ASSERT_EQ(first->open(), 0);
    ASSERT_EQ(second->open(), 0);
    Testing::LogCapture log(kCategory);
    ASSERT_EQ(first->startScan(), 0);
    ASSERT_EQ(second->startScan(), 0);
    EXPECT_TRUE(log.contains(second->name() + ": another process is scanning"));
    Core::ApList secondList, firstList;
    ASSERT_EQ(second->getScanResults(secondList), 0);
    ASSERT_EQ(first->getScanResults(firstList), 0);
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, first->name() + ": scan finished"), 2u);
    expectExactlyTheAccessPoints(secondList, "waiting adapter");
    expectExactlyTheAccessPoints(firstList, "scanning adapter");
}

TEST(VmScan, ScanLoopDeliversTheScan) {
    int calls = 0;
    Core::ResultCode result = API::ScanLoop::run(
        500, 2,
        [&](const API::ScanLoopState&, Core::ResultCode code, const Core::RecentApList&,
            const Core::ApList& fresh, const Core::ApList&) {
            ++calls;
            EXPECT_EQ(code, Core::ResultCode::kOk);
            expectExactlyTheAccessPoints(fresh, "scan loop");
            return 0;
        });
    EXPECT_EQ(result, Core::ResultCode::kOk);
    EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace ZEL::SPI

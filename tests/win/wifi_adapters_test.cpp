// NDISUIO over a scripted desktop driver; Native Wifi over the wlanapi.dll double.
#include <gtest/gtest.h>

#include <windows.h>
#include <wlanapi.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <string>
#include <tuple>

#include "spi/manual_clock.h"
#include "spi/wifi/ndisuio.h"
#include "spi/wifi/ndisuio_wifi_adapter.h"
#include "spi/wifi/wlan_wifi_adapter.h"
#include "support/hand_built_tile.h"
#include "support/log_capture.h"

namespace ZEL::SPI {
namespace {

using Testing::LogCapture;
constexpr uint64_t kNowMs = 1'700'000'000'125;
const char kDeviceLog[] = "ZEL.SPI.WifiAdapter.NDISWifiAdapter.Ndisuio";
const char kAdapterLog[] = "ZEL.SPI.WifiAdapter.NDISWifiAdapter.NDISWifiAdapter";

// `count` access points 02:00:00:00:00:01... at -40 dBm and less, in system structures.
std::vector<uint8_t> accessPoints(ULONG count) {
    std::vector<uint8_t> list(sizeof(ULONG) + count * sizeof(NDIS_WLAN_BSSID_EX));
    std::memcpy(list.data(), &count, sizeof count);
    for (ULONG i = 0; i < count; ++i) {
        NDIS_WLAN_BSSID_EX item{sizeof item,
                                {2, 0, 0, 0, UCHAR((i + 1) >> 8), UCHAR(i + 1)},
                                {},
                                {},
                                0,
                                -40 - LONG(i % 50),
                                {},
                                {},
                                Ndis802_11Infrastructure,
                                {},
                                0,
                                {}};
        std::memcpy(&list[sizeof count + i * sizeof item], &item, sizeof item);
    }
    return list;
}

// Desktop Windows' driver: bindings (name, medium, physical medium: 0, 1 is Wi-Fi),
// the BSSID list, the scans asked for and their result.
struct ScriptedDriver {
    std::vector<std::tuple<std::wstring, ULONG, ULONG>> bindings = {
        {L"\\DEVICE\\{E0}", 0, 0}, {L"\\DEVICE\\{W0}", 0, 1}, {L"\\DEVICE\\{T0}", 1, 1}};
    std::vector<uint8_t> bssList;
    DWORD setError = 0;
    int scans = 0;
};

// One handle on it, bound to an adapter by IOCTL_NDISUIO_OPEN_DEVICE.
class ScriptedChannel final : public NdisuioChannel {
  public:
    explicit ScriptedChannel(ScriptedDriver& driver) : driver_(driver) {}
    DWORD control(DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                  DWORD& returned) override {
        const auto codes = Ndisuio::controlCodes(Ndisuio::Variant::Desktop);
        ULONG head[5] = {};  // the request's OID, or the binding query
        std::memcpy(head, in, std::min<size_t>(inSize, sizeof head));
        std::basic_string<uint8_t> answer;
        auto put = [&](const void* bytes, size_t size) {
            answer.append(static_cast<const uint8_t*>(bytes), size);
        };
        if (code == codes.openDevice) {
            bound_.assign(static_cast<const wchar_t*>(in), inSize / sizeof(wchar_t));
        } else if (code == codes.setOid) {
            driver_.scans += head[0] == OID_802_11_BSSID_LIST_SCAN;
            return driver_.setError;
        } else if (code == codes.queryBinding && head[0] >= driver_.bindings.size()) {
            return ERROR_NO_MORE_ITEMS;
        } else if (code == codes.queryBinding) {
            const std::wstring& name = std::get<0>(driver_.bindings[head[0]]);
            head[1] = sizeof(Ndisuio::QueryBinding);
            head[2] = static_cast<ULONG>(name.size() * sizeof(wchar_t));
            put(head, head[1]);
            put(name.data(), head[2]);
        } else if (code == codes.queryOid && head[0] == OID_802_11_BSSID_LIST) {
            put(head, sizeof(NDIS_OID));
            put(driver_.bssList.data(), driver_.bssList.size());
        } else if (code == codes.queryOid) {
            put(head, sizeof(NDIS_OID));
            for (const auto& [name, medium, physical] : driver_.bindings) {
                ULONG value = head[0] == OID_GEN_MEDIA_IN_USE ? medium : physical;
                put(&value, name == bound_ ? sizeof value : 0);
            }
        }
        if (outSize < answer.size()) {
            return ERROR_INSUFFICIENT_BUFFER;
        }
        std::memcpy(out, answer.data(), answer.size());
        returned = static_cast<DWORD>(answer.size());
        return 0;
    }

  private:
    ScriptedDriver& driver_;
    std::wstring bound_;
};

class NdisuioAdapterTest : public ::testing::Test, public ScriptedDriver {
  protected:
    NdisuioAdapterTest() {
        options_.clock = &clock_;
        options_.open = [this](const std::wstring&, DWORD&) {
            return std::make_unique<ScriptedChannel>(*this);
        };
    }
    NdisuioOptions options_;
    ManualClock clock_{kNowMs};
};

TEST_F(NdisuioAdapterTest, ScansHoldTheMutexUntilTheirResultsAreRead) {
    bssList = accessPoints(40);  // 4804 bytes: over the first 4 KiB
    LogCapture log(kAdapterLog), device(kDeviceLog), wzc("ZEL.SPI.WifiAdapter.WZCAPIWrapper");
    AdapterList adapters = enumerateNdisuioAdapters(options_);
    ASSERT_EQ(adapters.size(), 1u);  // E0 is not wireless, T0 not 802.3
    EXPECT_EQ(adapters[0]->name(), "\\DEVICE\\{W0}");
    // No wireless configuration service under Wine: the adapter scans without asking.
    EXPECT_TRUE(wzc.contains("WZCSAPI.DLL not present in system: 126"));
    WifiAdapter& adapter = *adapters[0];
    EXPECT_EQ(adapter.startScan(), 0);
    EXPECT_EQ(adapter.startScan(), 0);
    EXPECT_EQ(log.count(LogPriority::kDebug, "\\DEVICE\\{W0}: scan already in progress..."), 1u);
    Core::ApList list;
    ASSERT_EQ(adapter.getScanResults(list), 0);
    ASSERT_EQ(list.size(), 40u);
    EXPECT_EQ(Core::macText(list[39].mac), "020000000028");
    EXPECT_EQ(list[39].rss, -79);
    EXPECT_EQ(list[39].time, clock_.now());
    EXPECT_TRUE(device.contains(
        "ERROR_INSUFFICIENT_BUFFER for IOCTL_NDISUIO_QUERY_OID_VALUE: _bufsize = 8192"));
    setError = ERROR_GEN_FAILURE;
    EXPECT_EQ(adapter.startScan(), ERROR_GEN_FAILURE);
    EXPECT_TRUE(log.contains("\\DEVICE\\{W0}: setting oid failed with error 31"));
    setError = 0;
    EXPECT_EQ(adapter.startScan(), 0);
    bssList = accessPoints(600);  // 70 KiB: more than a query may take
    EXPECT_EQ(adapter.getScanResults(list), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(log.contains("\\DEVICE\\{W0}: querying oid failed with error 122"));
    EXPECT_EQ(adapter.startScan(), 0);
    EXPECT_EQ(scans, 4);  // each failure gave the mutex back
    adapter.close();
    EXPECT_EQ(adapter.startScan(), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(enumerateNdisuioAdapters({}).empty());  // the real device, absent under Wine
    EXPECT_TRUE(device.contains("CreateFile(\\\\.\\NdisUio) failed: 2"));
}

TEST(WlanAdapterTest, ScansTheServiceInterfacesAndReadsTheirBssLists) {
    Testing::TempDir directory;
    const std::string script = directory.path() + "/wlan";
    // The second is ad hoc; the list says one entry more than it holds.
    std::ofstream(script) << "interface 1 Test Wireless 1\ninterface 2 Test Wireless 2\n"
                          << "bss 0A0000000001 -48 1 cafe\nbss 0A0000000002 -70 2\n"
                          << "bss 0A0000000003 -40000 1\nclaim 1\n";
    SetEnvironmentVariableA("ZEL_TEST_WLAN_SCRIPT", script.c_str());
    ManualClock clock{kNowMs};
    AdapterList adapters = enumerateWlanAdapters(&clock);
    ASSERT_EQ(adapters.size(), 2u);
    Core::ApList list(5);
    ASSERT_EQ(adapters[0]->open(), 0);
    EXPECT_EQ(adapters[0]->startScan(), 0);
    LogCapture log("ZEL.SPI.WifiAdapter.WlanWifiAdapter");
    ASSERT_EQ(adapters[0]->getScanResults(list), 0);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].ssidText(), "cafe");
    EXPECT_EQ(list[0].rss, -48);
    EXPECT_EQ(list[1].rss, -32768);
    const size_t size = offsetof(WLAN_BSS_LIST, wlanBssEntries) + 3 * sizeof(WLAN_BSS_ENTRY);
    EXPECT_TRUE(log.contains("Test Wireless 1: 4 BSS entries said, 3 fit in " +
                             std::to_string(size) + " bytes"));
    SetEnvironmentVariableA("ZEL_TEST_WLAN_SCRIPT", nullptr);
}

}  // namespace
}  // namespace ZEL::SPI

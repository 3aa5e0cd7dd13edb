// The Windows Wi-Fi adapters: NDISUIO over a scripted desktop driver, Native Wifi
// over the wlanapi.dll double beside this program.
#include <gtest/gtest.h>

#include <windows.h>
#include <wlanapi.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "spi/manual_clock.h"
#include "spi/wifi/ndisuio.h"
#include "spi/wifi/ndisuio_wifi_adapter.h"
#include "spi/wifi/wlan_wifi_adapter.h"
#include "support/log_capture.h"

namespace ZEL::SPI {
namespace {

using Testing::LogCapture;
constexpr uint64_t kNowMs = 1'700'000'000'125;
const Core::TimeStamp kNow = Core::TimeStamp::fromMilliseconds(kNowMs);
const char kDeviceLog[] = "ZEL.SPI.WifiAdapter.NDISWifiAdapter.Ndisuio";
const char kAdapterLog[] = "ZEL.SPI.WifiAdapter.NDISWifiAdapter.NDISWifiAdapter";

// `count` infrastructure access points 02:00:00:00:00:01..., laid out with the
// system's own structures.
std::vector<uint8_t> bssList(ULONG count) {
    std::vector<uint8_t> list(offsetof(NDIS_802_11_BSSID_LIST_EX, Bssid) +
                              count * sizeof(NDIS_WLAN_BSSID_EX));
    reinterpret_cast<NDIS_802_11_BSSID_LIST_EX*>(list.data())->NumberOfItems = count;
    for (ULONG i = 0; i < count; ++i) {
        NDIS_WLAN_BSSID_EX item{};
        item.Length = sizeof item;
        item.MacAddress[0] = 2;
        item.MacAddress[5] = static_cast<UCHAR>(i + 1);
        item.Rssi = -40 - static_cast<LONG>(i % 50);
        item.InfrastructureMode = Ndis802_11Infrastructure;
        std::memcpy(list.data() + offsetof(NDIS_802_11_BSSID_LIST_EX, Bssid) + i * sizeof item,
                    &item, sizeof item);
    }
    return list;
}

// Desktop Windows' driver as DeviceIoControl shows it.
struct ScriptedDriver {
    struct Binding {
        std::wstring name;
        ULONG medium = 0, physicalMedium = 1;  // 802.3 on wireless LAN
    };
    std::vector<Binding> bindings;
    std::vector<uint8_t> bssList;
    DWORD setError = 0;
    int scans = 0;
};

class ScriptedChannel final : public NdisuioChannel {
  public:
    explicit ScriptedChannel(ScriptedDriver& driver) : driver_(driver) {}
    DWORD control(DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                  DWORD& returned) override {
        const auto codes = Ndisuio::controlCodes(Ndisuio::Variant::Desktop);
        returned = 0;
        if (code == codes.bindWait) {
            return 0;
        }
        if (code == codes.queryBinding) {
            Ndisuio::QueryBinding binding;
            std::memcpy(&binding, in, sizeof binding);
            if (binding.bindingIndex >= driver_.bindings.size()) {
                return ERROR_NO_MORE_ITEMS;
            }
            const std::wstring& name = driver_.bindings[binding.bindingIndex].name;
            binding.deviceNameOffset = sizeof binding;
            binding.deviceNameLength = static_cast<ULONG>(name.size() * sizeof(wchar_t));
            return answer(&binding, sizeof binding, name.data(), binding.deviceNameLength, out,
                          outSize, returned);
        }
        if (code == codes.openDevice) {
            std::wstring name(static_cast<const wchar_t*>(in), inSize / sizeof(wchar_t));
            for (const auto& binding : driver_.bindings) {
                bound_ = binding.name == name ? &binding : bound_;
            }
            return bound_ != nullptr ? 0 : ERROR_FILE_NOT_FOUND;
        }
        NDIS_OID oid;
        std::memcpy(&oid, in, sizeof oid);
        if (code == codes.setOid) {
            driver_.scans += oid == OID_802_11_BSSID_LIST_SCAN;
            return driver_.setError;
        }
        if (code != codes.queryOid || bound_ == nullptr) {
            return ERROR_INVALID_FUNCTION;
        }
        if (oid == OID_802_11_BSSID_LIST) {
            return answer(&oid, sizeof oid, driver_.bssList.data(), driver_.bssList.size(), out,
                          outSize, returned);
        }
        ULONG value = oid == OID_GEN_MEDIA_IN_USE ? bound_->medium : bound_->physicalMedium;
        return answer(&oid, sizeof oid, &value, sizeof value, out, outSize, returned);
    }

  private:
    static DWORD answer(const void* head, size_t headSize, const void* data, size_t dataSize,
                        void* out, DWORD outSize, DWORD& returned) {
        if (outSize < headSize + dataSize) {
            return ERROR_INSUFFICIENT_BUFFER;
        }
        std::memcpy(out, head, headSize);
        std::memcpy(static_cast<uint8_t*>(out) + headSize, data, dataSize);
        returned = static_cast<DWORD>(headSize + dataSize);
        return 0;
    }
    ScriptedDriver& driver_;
    const ScriptedDriver::Binding* bound_ = nullptr;
};

class NdisuioAdapterTest : public ::testing::Test {
  protected:
    NdisuioAdapterTest() {
        driver_.bindings = {{L"\\DEVICE\\{E0}", 0, 0}, {L"\\DEVICE\\{W0}"}, {L"\\DEVICE\\{T0}", 1}};
        options_.clock = &clock_;
        options_.open = [this](const std::wstring&, DWORD&) {
            return std::make_unique<ScriptedChannel>(driver_);
        };
    }
    ScriptedDriver driver_;
    NdisuioOptions options_;
    ManualClock clock_{kNowMs};
};

TEST_F(NdisuioAdapterTest, OnlyWirelessBindingsBecomeAdapters) {
    LogCapture log(kDeviceLog);
    LogCapture wzc("ZEL.SPI.WifiAdapter.WZCAPIWrapper");
    AdapterList adapters = enumerateNdisuioAdapters(options_);
    ASSERT_EQ(adapters.size(), 1u);
    EXPECT_EQ(adapters[0]->name(), "\\DEVICE\\{W0}");
    EXPECT_TRUE(log.contains("\\\\.\\NdisUio: guid = \\DEVICE\\{W0}"));
    EXPECT_TRUE(log.contains("\\DEVICE\\{E0}: medium is not WiFi (0)"));
    EXPECT_TRUE(log.contains("\\DEVICE\\{T0}: medium in use is not 802.3 (1)"));
    // No wireless configuration service under Wine: the adapter scans without asking.
    EXPECT_TRUE(wzc.contains("WZCSAPI.DLL not present in system: 126"));
}

TEST_F(NdisuioAdapterTest, NoAccessDeviceNoAdapters) {
    LogCapture log(kDeviceLog);
    EXPECT_TRUE(enumerateNdisuioAdapters({}).empty());  // the real device, absent under Wine
    EXPECT_TRUE(log.contains("CreateFile(\\\\.\\NdisUio) failed: 2"));
}

TEST_F(NdisuioAdapterTest, ScanGrowsTheQueryBufferForTheList) {
    driver_.bssList = bssList(40);  // 4804 bytes: over the first 4 KiB
    AdapterList adapters = enumerateNdisuioAdapters(options_);
    ASSERT_EQ(adapters.size(), 1u);
    LogCapture log(kAdapterLog);
    LogCapture device(kDeviceLog);
    EXPECT_EQ(adapters[0]->startScan(), 0);
    EXPECT_EQ(adapters[0]->startScan(), 0);
    EXPECT_EQ(driver_.scans, 1);
    EXPECT_EQ(log.count(LogPriority::kDebug, "\\DEVICE\\{W0}: scan already in progress..."), 1u);
    Core::ApList list;
    ASSERT_EQ(adapters[0]->getScanResults(list), 0);
    ASSERT_EQ(list.size(), 40u);
    EXPECT_EQ(Core::macText(list[39].mac), "020000000028");
    EXPECT_EQ(list[39].rss, -79);
    EXPECT_EQ(list[39].time, kNow);
    EXPECT_TRUE(device.contains(
        "ERROR_INSUFFICIENT_BUFFER for IOCTL_NDISUIO_QUERY_OID_VALUE: _bufsize = 8192"));
    // The mutex was given back with the results: the next scan is asked for.
    EXPECT_EQ(adapters[0]->startScan(), 0);
    EXPECT_EQ(driver_.scans, 2);
}

TEST_F(NdisuioAdapterTest, FailuresReturnTheErrorAndGiveTheMutexBack) {
    AdapterList adapters = enumerateNdisuioAdapters(options_);
    ASSERT_EQ(adapters.size(), 1u);
    LogCapture log(kAdapterLog);
    driver_.setError = ERROR_GEN_FAILURE;
    EXPECT_EQ(adapters[0]->startScan(), ERROR_GEN_FAILURE);
    EXPECT_TRUE(log.contains("\\DEVICE\\{W0}: setting oid failed with error 31"));
    driver_.setError = 0;
    EXPECT_EQ(adapters[0]->startScan(), 0);
    EXPECT_EQ(driver_.scans, 2);
    driver_.bssList = bssList(600);  // 72 KiB: more than a query may take
    Core::ApList list;
    EXPECT_EQ(adapters[0]->getScanResults(list), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_TRUE(log.contains("\\DEVICE\\{W0}: querying oid failed with error 122"));
    EXPECT_EQ(adapters[0]->startScan(), 0);
    EXPECT_EQ(driver_.scans, 3);
    adapters[0]->close();
    EXPECT_EQ(adapters[0]->startScan(), ERROR_INVALID_HANDLE);
}

TEST_F(NdisuioAdapterTest, AScanHeldElsewhereIsNotDisturbed) {
    AdapterList adapters = enumerateNdisuioAdapters(options_);
    ASSERT_EQ(adapters.size(), 1u);
    std::atomic<HANDLE> held = nullptr;
    HANDLE release = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread other([&] {  // a Win32 mutex is re-entrant for its own thread
        HANDLE mutex = CreateMutexW(nullptr, FALSE, kNdisScanMutexName);
        WaitForSingleObject(mutex, INFINITE);
        held = mutex;
        WaitForSingleObject(release, INFINITE);
        ReleaseMutex(mutex);
        CloseHandle(mutex);
    });
    while (held == nullptr) {
        Sleep(1);
    }
    EXPECT_EQ(adapters[0]->startScan(), 0);
    EXPECT_EQ(driver_.scans, 0);
    SetEvent(release);
    other.join();
    CloseHandle(release);
    EXPECT_EQ(adapters[0]->startScan(), 0);
    EXPECT_EQ(driver_.scans, 1);
}

// The wlanapi.dll double's scripting entry points.
struct WlanDouble {
    using Script = void(WINAPI*)(const WLAN_INTERFACE_INFO*, DWORD, const WLAN_BSS_ENTRY*, DWORD,
                                 DWORD, DWORD);
    using Counters = void(WINAPI*)(LONG*, LONG*, LONG*);
    WlanDouble() {
        // Loud when the double is missing: WINEDLLOVERRIDES keeps Wine's own out.
        HMODULE module = LoadLibraryW(L"wlanapi.dll");
        EXPECT_NE(module, nullptr) << "the wlanapi.dll double beside the test program";
        script = reinterpret_cast<Script>(
            reinterpret_cast<void*>(GetProcAddress(module, "WlanDoubleScript")));
        counters = reinterpret_cast<Counters>(
            reinterpret_cast<void*>(GetProcAddress(module, "WlanDoubleCounters")));
        EXPECT_TRUE(script != nullptr && counters != nullptr) << "not the double";
    }
    Script script = nullptr;
    Counters counters = nullptr;
};

WLAN_BSS_ENTRY bssEntry(UCHAR last, LONG rssi, DOT11_BSS_TYPE type, const char* ssid) {
    WLAN_BSS_ENTRY entry{};
    entry.dot11Bssid[0] = 0x0A;
    entry.dot11Bssid[5] = last;
    entry.lRssi = rssi;
    entry.dot11BssType = type;
    entry.dot11Ssid.uSSIDLength = static_cast<ULONG>(std::strlen(ssid));
    std::memcpy(entry.dot11Ssid.ucSSID, ssid, entry.dot11Ssid.uSSIDLength);
    return entry;
}

TEST(WlanAdapterTest, ScansTheServiceInterfacesAndReadsTheirBssLists) {
    WlanDouble wlan;
    ASSERT_TRUE(wlan.script != nullptr);
    WLAN_INTERFACE_INFO interfaces[2] = {};
    interfaces[0].InterfaceGuid.Data1 = 1;
    wcscpy(interfaces[0].strInterfaceDescription, L"Test Wireless 1");
    interfaces[1].InterfaceGuid.Data1 = 2;
    wcscpy(interfaces[1].strInterfaceDescription, L"Test Wireless 2");
    WLAN_BSS_ENTRY entries[] = {bssEntry(1, -48, dot11_BSS_type_infrastructure, "cafe"),
                                bssEntry(2, -70, dot11_BSS_type_independent, "adhoc"),
                                bssEntry(3, -40000, dot11_BSS_type_infrastructure, "")};
    wlan.script(interfaces, 2, entries, 3, 1, ERROR_SUCCESS);  // one item more said than given
    ManualClock clock{kNowMs};
    AdapterList adapters = enumerateWlanAdapters(&clock);
    ASSERT_EQ(adapters.size(), 2u);
    EXPECT_EQ(adapters[1]->name(), "Test Wireless 2");
    Core::ApList list(5);
    EXPECT_EQ(adapters[0]->startScan(), ERROR_INVALID_HANDLE);  // not opened
    ASSERT_EQ(adapters[0]->open(), 0);
    EXPECT_EQ(adapters[0]->startScan(), 0);
    LogCapture log("ZEL.SPI.WifiAdapter.WlanWifiAdapter");
    ASSERT_EQ(adapters[0]->getScanResults(list), 0);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(Core::macText(list[0].mac), "0A0000000001");
    EXPECT_EQ(list[0].ssidText(), "cafe");
    EXPECT_EQ(list[0].rss, -48);
    EXPECT_EQ(list[0].time, kNow);
    EXPECT_EQ(list[1].rss, -32768);
    const size_t size = offsetof(WLAN_BSS_LIST, wlanBssEntries) + 3 * sizeof(WLAN_BSS_ENTRY);
    EXPECT_TRUE(log.contains("Test Wireless 1: 4 BSS entries said, 3 fit in " +
                             std::to_string(size) + " bytes"));
    wlan.script(interfaces, 2, entries, 0, 0, ERROR_BUSY);
    EXPECT_EQ(adapters[0]->startScan(), 0);  // a scan already under way
    wlan.script(interfaces, 2, entries, 0, 0, ERROR_NOT_READY);
    EXPECT_EQ(adapters[0]->startScan(), ERROR_NOT_READY);
    adapters.clear();
    LONG scans = 0, handles = 0, unfreed = 0;
    wlan.counters(&scans, &handles, &unfreed);
    EXPECT_EQ(scans, 3);
    EXPECT_EQ(handles, 0);
    EXPECT_EQ(unfreed, 0);
}

}  // namespace
}  // namespace ZEL::SPI

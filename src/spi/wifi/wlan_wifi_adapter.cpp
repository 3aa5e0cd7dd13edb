#include "spi/wifi/wlan_wifi_adapter.h"

#include <windows.h>
#include <wlanapi.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <memory>

#include "spi/log.h"
#include "spi/text.h"
#include "spi/time/win32_clock.h"
#include "spi/wifi/ndis_bss_list.h"

namespace ZEL::SPI {
namespace {

const char kCategory[] = "ZEL.SPI.WifiAdapter.WlanWifiAdapter";
constexpr DWORD kClientVersion = 2;  // the WLAN API of desktop Windows since Vista
// Beyond this many interfaces a list is taken for garbage.
constexpr DWORD kMaxInterfaces = 64;

// The entry points used, resolved once; the library stays loaded for the process.
struct WlanLibrary {
    decltype(&WlanOpenHandle) open = nullptr;
    decltype(&WlanCloseHandle) close = nullptr;
    decltype(&WlanEnumInterfaces) enumInterfaces = nullptr;
    decltype(&WlanScan) scan = nullptr;
    decltype(&WlanGetNetworkBssList) getNetworkBssList = nullptr;
    decltype(&WlanFreeMemory) freeMemory = nullptr;

    // Null, with an error line, when the library or one of its entry points is
    // missing; tried again at the next call.
    static const WlanLibrary* load(Logger& log);
};

template <typename Function>
bool resolve(HMODULE library, const char* name, Function& function, Logger& log) {
    // GetProcAddress hands every entry point out as FARPROC; this is its type.
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(library, name)));
    if (function == nullptr) {
        ZEL_LOG_ERROR(log, "wlanapi.dll lacks %s: %d", name, static_cast<int>(GetLastError()));
    }
    return function != nullptr;
}

const WlanLibrary* WlanLibrary::load(Logger& log) {
    static WlanLibrary library;
    if (library.freeMemory != nullptr) {
        return &library;
    }
    HMODULE module = LoadLibraryW(L"wlanapi.dll");
    if (module == nullptr) {
        ZEL_LOG_ERROR(log, "wlanapi.dll not present in system: %d",
                      static_cast<int>(GetLastError()));
        return nullptr;
    }
    WlanLibrary loaded;
    if (resolve(module, "WlanOpenHandle", loaded.open, log) &&
        resolve(module, "WlanCloseHandle", loaded.close, log) &&
        resolve(module, "WlanEnumInterfaces", loaded.enumInterfaces, log) &&
        resolve(module, "WlanScan", loaded.scan, log) &&
        resolve(module, "WlanGetNetworkBssList", loaded.getNetworkBssList, log) &&
        resolve(module, "WlanFreeMemory", loaded.freeMemory, log)) {
        library = loaded;
        return &library;
    }
    FreeLibrary(module);
    return nullptr;
}

// Memory the WLAN service allocated, given back with WlanFreeMemory.
template <typename T>
auto serviceOwned(const WlanLibrary& api, T* pointer) {
    auto free = [&api](T* p) {
        if (p != nullptr) {
            api.freeMemory(p);
        }
    };
    return std::unique_ptr<T, decltype(free)>(pointer, free);
}

std::string guidText(const GUID& guid) {
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return toNarrow(text);
}

class WlanWifiAdapter final : public WifiAdapter {
  public:
    WlanWifiAdapter(const WlanLibrary& api, const WLAN_INTERFACE_INFO& info, Clock& clock)
        : log_(getLogger(kCategory)),
          api_(api),
          guid_(info.InterfaceGuid),
          name_(toNarrow(info.strInterfaceDescription)),
          clock_(clock) {}
    ~WlanWifiAdapter() override { close(); }

    std::string name() const override { return name_; }
    int open() override;
    void close() override;
    // The WLAN service runs one scan at a time for all its clients: no scan mutex.
    int startScan() override;
    int getScanResults(Core::ApList& list) override;

  private:
    Logger& log_;
    const WlanLibrary& api_;
    GUID guid_;
    std::string name_;
    Clock& clock_;
    HANDLE client_ = nullptr;
};

int WlanWifiAdapter::open() {
    if (client_ != nullptr) {
        return 0;
    }
    DWORD negotiated = 0;
    DWORD error = api_.open(kClientVersion, nullptr, &negotiated, &client_);
    if (error != ERROR_SUCCESS) {
        client_ = nullptr;
        ZEL_LOG_ERROR(log_, "%s: WlanOpenHandle failed with error %d", name_.c_str(),
                      static_cast<int>(error));
        return static_cast<int>(error);
    }
    ZEL_LOG_INFO(log_, "%s opened", name_.c_str());
    return 0;
}

void WlanWifiAdapter::close() {
    if (client_ != nullptr) {
        api_.close(client_, nullptr);
        client_ = nullptr;
    }
}

int WlanWifiAdapter::startScan() {
    if (client_ == nullptr) {
        ZEL_LOG_ERROR(log_, "%s: startScan on a closed adapter", name_.c_str());
        return ERROR_INVALID_HANDLE;
    }
    DWORD error = api_.scan(client_, &guid_, nullptr, nullptr, nullptr);
    if (error == ERROR_BUSY) {
        // A scan is under way: its results reach the service's list, read like any other.
        ZEL_LOG_DEBUG(log_, "%s: scan already in progress...", name_.c_str());
        return 0;
    }
    if (error != ERROR_SUCCESS) {
        ZEL_LOG_ERROR(log_, "%s: WlanScan failed with error %d", name_.c_str(),
                      static_cast<int>(error));
        return static_cast<int>(error);
    }
    ZEL_LOG_DEBUG(log_, "%s: scanning started...", name_.c_str());
    return 0;
}

int WlanWifiAdapter::getScanResults(Core::ApList& list) {
    list.clear();
    if (client_ == nullptr) {
        ZEL_LOG_ERROR(log_, "%s: getScanResults on a closed adapter", name_.c_str());
        return ERROR_INVALID_HANDLE;
    }
    WLAN_BSS_LIST* raw = nullptr;
    DWORD error =
        api_.getNetworkBssList(client_, &guid_, nullptr, dot11_BSS_type_any, FALSE, nullptr, &raw);
    auto bssList = serviceOwned(api_, raw);
    if (error != ERROR_SUCCESS || !bssList) {
        ZEL_LOG_ERROR(log_, "%s: WlanGetNetworkBssList failed with error %d", name_.c_str(),
                      static_cast<int>(error));
        return error != ERROR_SUCCESS ? static_cast<int>(error) : ERROR_INVALID_DATA;
    }
    // Only the entries the list's own size holds are read.
    constexpr size_t kEntries = offsetof(WLAN_BSS_LIST, wlanBssEntries);
    const size_t fit = bssList->dwTotalSize < kEntries
                           ? 0
                           : (bssList->dwTotalSize - kEntries) / sizeof(WLAN_BSS_ENTRY);
    const size_t count = std::min<size_t>(bssList->dwNumberOfItems, fit);
    if (count < bssList->dwNumberOfItems) {
        ZEL_LOG_ERROR(log_, "%s: %u BSS entries said, %u fit in %u bytes", name_.c_str(),
                      static_cast<unsigned>(bssList->dwNumberOfItems), static_cast<unsigned>(fit),
                      static_cast<unsigned>(bssList->dwTotalSize));
    }
    ZEL_LOG_DEBUG(log_, "scanned %d APs", static_cast<int>(count));
    const Core::TimeStamp now = clock_.now();
    for (size_t i = 0; i < count; ++i) {
        const WLAN_BSS_ENTRY& entry = bssList->wlanBssEntries[i];
        // lRssi is dBm already.
        const auto dbm = static_cast<int16_t>(std::clamp<LONG>(entry.lRssi, SHRT_MIN, SHRT_MAX));
        NdisBss::addHeard(list,
                          NdisBss::scannedAp(entry.dot11Bssid, entry.dot11Ssid.ucSSID,
                                             entry.dot11Ssid.uSSIDLength, dbm, now, log_),
                          entry.dot11BssType == dot11_BSS_type_infrastructure,
                          static_cast<int>(entry.dot11BssType), log_);
    }
    return 0;
}

}  // namespace

AdapterList enumerateWlanAdapters(Clock* clock) {
    Logger& log = getLogger(kCategory);
    const WlanLibrary* api = WlanLibrary::load(log);
    if (api == nullptr) {
        return {};
    }
    DWORD negotiated = 0;
    HANDLE client = nullptr;
    DWORD error = api->open(kClientVersion, nullptr, &negotiated, &client);
    if (error != ERROR_SUCCESS) {
        ZEL_LOG_ERROR(log, "WlanOpenHandle failed with error %d", static_cast<int>(error));
        return {};
    }
    WLAN_INTERFACE_INFO_LIST* raw = nullptr;
    error = api->enumInterfaces(client, nullptr, &raw);
    auto interfaces = serviceOwned(*api, raw);
    AdapterList adapters;
    if (error != ERROR_SUCCESS || !interfaces) {
        ZEL_LOG_ERROR(log, "WlanEnumInterfaces failed with error %d", static_cast<int>(error));
    } else {
        const DWORD count = std::min(interfaces->dwNumberOfItems, kMaxInterfaces);
        for (DWORD i = 0; i < count; ++i) {
            const WLAN_INTERFACE_INFO& info = interfaces->InterfaceInfo[i];
            ZEL_LOG_DEBUG(log, "%s: guid = %s", toNarrow(info.strInterfaceDescription).c_str(),
                          guidText(info.InterfaceGuid).c_str());
            adapters.push_back(std::make_unique<WlanWifiAdapter>(
                *api, info, clock != nullptr ? *clock : win32Clock()));
        }
    }
    api->close(client, nullptr);
    return adapters;
}

}  // namespace ZEL::SPI

#include "spi/wifi/wzc_wrapper.h"

#include <cstdint>
#include <iterator>

#include "spi/text.h"

namespace ZEL::SPI {
namespace {

const char* const kEntryNames[] = {"WZCEnumInterfaces",   "WZCQueryInterface", "WZCSetInterface",
                                   "WZCRefreshInterface", "WZCDeleteIntfObj",  "WZCQueryContext",
                                   "WZCSetContext"};
constexpr int kQueryInterface = 1;
constexpr int kDeleteIntfObj = 4;
constexpr DWORD kIntfBssidList = 0x4000000;  // INTF_BSSIDLIST

struct RawData {
    DWORD length;
    BYTE* data;
};

// INTF_ENTRY as the service fills it. Only the GUID text is ours; the service's
// allocations are given back through WZCDeleteIntfObj. The handheld system's entry
// has more fields after these: the reserved tail holds them.
struct InterfaceEntry {
    wchar_t* guid;
    wchar_t* description;
    ULONG mediaState, mediaType, physicalMediaType;
    INT infrastructureMode, authenticationMode, wepStatus;
    DWORD controlFlags, capabilities;
    RawData ssid, bssid, bssidList, staticSsidList, controlData;
    uint8_t reserved[256];
};

using QueryInterfaceCall = DWORD(WINAPI*)(wchar_t* server, DWORD inFlags, InterfaceEntry* entry,
                                          DWORD* outFlags);
using DeleteIntfObjCall = void(WINAPI*)(InterfaceEntry* entry);

}  // namespace

WzcWrapper::WzcWrapper() : log_(getLogger("ZEL.SPI.WifiAdapter.WZCAPIWrapper")) {}

WzcWrapper::~WzcWrapper() {
    unload();
}

WzcWrapper* WzcWrapper::instance() {
    static WzcWrapper wrapper;
    if (wrapper.library_ == nullptr && wrapper.load() != 0) {
        return nullptr;
    }
    return &wrapper;
}

void WzcWrapper::unload() {
    if (library_ != nullptr) {
        FreeLibrary(library_);
        library_ = nullptr;
    }
}

DWORD WzcWrapper::load() {
    unload();
    library_ = LoadLibraryW(L"wzcsapi.dll");
    if (library_ == nullptr) {
        DWORD error = GetLastError();
        ZEL_LOG_ERROR(log_, "WZCSAPI.DLL not present in system: %d", static_cast<int>(error));
        return error;
    }
    for (size_t i = 0; i < std::size(kEntryNames); ++i) {
        entries_[i] = GetProcAddress(library_, kEntryNames[i]);
        if (entries_[i] == nullptr) {
            DWORD error = GetLastError();
            ZEL_LOG_ERROR(log_, "WZC APIs (%s) not present in system: %d", kEntryNames[i],
                          static_cast<int>(error));
            unload();
            return error;
        }
    }
    ZEL_LOG_DEBUG(log_, "WZCSAPI.DLL loaded");
    return 0;
}

bool WzcWrapper::isBusy(const std::wstring& device) {
    if (library_ == nullptr) {
        ZEL_LOG_ERROR(log_, "WZCAPI not initialized");
        return false;
    }
    std::wstring guid = device;
    InterfaceEntry entry{};
    entry.guid = guid.data();
    DWORD outFlags = 0;
    // GetProcAddress hands every entry point out as FARPROC; these are their types.
    auto query =
        reinterpret_cast<QueryInterfaceCall>(reinterpret_cast<void*>(entries_[kQueryInterface]));
    DWORD result = query(nullptr, kIntfBssidList, &entry, &outFlags);
    bool busy = false;
    if (result != 0) {
        ZEL_LOG_ERROR(log_, "%s: WZCQueryInterface failed (%d)", toNarrow(device).c_str(),
                      static_cast<int>(result));
        ZEL_LOG_ERROR(log_, "%s: QueryInterface(INTF_BSSIDLIST) failed %d",
                      toNarrow(device).c_str(), static_cast<int>(result));
    } else {
        busy = (outFlags & kIntfBssidList) == 0;
    }
    entry.guid = nullptr;  // ours, not the service's to free
    reinterpret_cast<DeleteIntfObjCall>(reinterpret_cast<void*>(entries_[kDeleteIntfObj]))(&entry);
    return busy;
}

}  // namespace ZEL::SPI

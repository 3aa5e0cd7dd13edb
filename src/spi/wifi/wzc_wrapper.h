// The wireless configuration service's library ("wzcsapi.dll"), loaded at run time:
// the NDISUIO adapter asks it whether the service is itself scanning before it
// triggers a scan of its own. The library is optional; without it the adapter
// scans without asking.
#pragma once

#include <windows.h>

#include <string>

#include "spi/log.h"

namespace ZEL::SPI {

class WzcWrapper {
  public:
    // The process-wide wrapper, loading the library on first use; null when that
    // failed (logged), and loading is tried again at the next call. Not thread-safe:
    // adapters are made and used on the scan loop's thread.
    static WzcWrapper* instance();

    // 0 or the last error of the failed LoadLibraryW or GetProcAddress.
    DWORD load();

    // Whether the service is busy with a BSSID list scan on the adapter of device
    // name `device`: it reports the BSSID list as not ready. A failed query is
    // logged and counts as not busy.
    bool isBusy(const std::wstring& device);

  private:
    WzcWrapper();
    ~WzcWrapper();
    void unload();

    Logger& log_;
    HMODULE library_ = nullptr;
    // WZCEnumInterfaces, WZCQueryInterface, WZCSetInterface, WZCRefreshInterface,
    // WZCDeleteIntfObj, WZCQueryContext, WZCSetContext: all must be there.
    FARPROC entries_[7] = {};
};

}  // namespace ZEL::SPI

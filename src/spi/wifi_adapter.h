// The Wi-Fi adapter interface that the scan loop drives, and how adapters are found.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "spi/scanned_ap.h"

namespace ZEL::SPI::Wifi {

// One wireless adapter. Only the scan loop's thread calls it. Integer results are 0
// on success, otherwise an error code of the platform.
class WifiAdapter {
  public:
    virtual ~WifiAdapter() = default;
    // A name for the log.
    virtual std::string name() const = 0;
    virtual int open() = 0;
    // Releases whatever open and startScan took; safe to call when not open.
    virtual void close() = 0;
    // Asks the adapter to scan; 0 also when a scan is already under way.
    virtual int startScan() = 0;
    // Replaces `list` with what the adapter heard since the last scan started.
    virtual int getScanResults(ApList& list) = 0;
};

using AdapterList = std::vector<std::unique_ptr<WifiAdapter>>;
using AdapterEnumerator = std::function<AdapterList()>;

// The usable adapters, first the preferred one: those of the installed enumerator
// if one is set, otherwise the system's.
AdapterList enumerateAdapters();

// Installs an enumerator that replaces the system's adapters (an application scan
// source, a replay, a test); an empty function restores the system's. Returns the
// previous enumerator. Not thread-safe: call it under the API lock.
AdapterEnumerator setAdapterEnumerator(AdapterEnumerator enumerator);

// The system's wireless adapters in station mode.
AdapterList enumerateSystemAdapters();

}  // namespace ZEL::SPI::Wifi

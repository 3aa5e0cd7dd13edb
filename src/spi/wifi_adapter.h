// The Wi-Fi adapter interface that the scan loop drives.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/scanned_ap.h"

namespace ZEL::SPI {

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
    virtual int getScanResults(Core::ApList& list) = 0;
};

using AdapterList = std::vector<std::unique_ptr<WifiAdapter>>;

}  // namespace ZEL::SPI

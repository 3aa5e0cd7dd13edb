// From a scan to what the local database knows about its access points, and the
// per-AP signal histories kept from one determination call to the next.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "core/scanned_ap.h"
#include "tiles/local_compressed_file_reader.h"

namespace ZEL::SPI {
class Logger;
}

namespace ZEL::Local {

// Number of scans an entry remembers: slot 0 is the current call, slot k the call
// k calls ago.
inline constexpr size_t kTrackedScans = 21;

// One access point being worked on.
struct LocalApEntry {
    Core::MacAddress mac{};
    double latitude = 0.0;   // degrees
    double longitude = 0.0;  // degrees
    uint32_t quality = 0;
    double signalExponent = 0.0;
    std::array<int32_t, kTrackedScans> rss{};           // dBm; 0 = not heard in that scan
    std::array<Core::TimeStamp, kTrackedScans> time{};  // the scan record's time; 0 = none

    // An entry heard once, now, with the stored values of `data`.
    static LocalApEntry heard(const Core::ScannedAP& ap, const Tiles::StoredApData& data);
};

// Keyed by the 6 stored MAC bytes in bytewise (memcmp) order, which is the order
// of std::array<uint8_t, 6>.
using StoredApMap = std::map<Core::MacAddress, Tiles::StoredApData>;

using ReaderList = std::vector<std::unique_ptr<Tiles::LocalCompressedFileReader>>;

// What the readers store for each AP of `aps`, asked in reader order: the first
// reader that holds the MAC answers. A MAC heard twice keeps its first data. Logs one debug line
// per scan record, none at all when `readers` is empty.
StoredApMap lookupStoredAps(ReaderList& readers, const Core::ApList& aps, SPI::Logger& log);

// Ages every tracked entry by one call, records this call's RSS and time of each
// AP of `aps` (appending new entries, with their stored values from `entries` or,
// for an AP the database does not know, position 0,0, quality 50 and exponent
// 0.25), then drops the entries not heard in any of their 21 slots.
void updateTrackedAps(std::vector<LocalApEntry>& tracked, const std::vector<LocalApEntry>& entries,
                      const Core::ApList& aps);

// The tracked entry for `mac`, or null.
const LocalApEntry* findTracked(const std::vector<LocalApEntry>& tracked,
                                const Core::MacAddress& mac);

}  // namespace ZEL::Local

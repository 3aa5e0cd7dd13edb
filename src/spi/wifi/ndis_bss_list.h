// Reading the BSSID list a Windows network driver returns for OID_802_11_BSSID_LIST
// (NDIS_802_11_BSSID_LIST_EX) into the scan list. Portable on purpose: it reads the
// structure's published layout from bytes, so it is tested on every platform, and
// the Windows back end checks these offsets against the system's own declarations
// (ndisuio.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/scanned_ap.h"
#include "spi/log.h"

namespace ZEL::SPI::NdisBss {

// The list: NumberOfItems (ULONG), then the items, each starting with its own
// Length in bytes (ULONG); an item is followed by its information elements, so
// items are stepped over by that Length, never by a structure size. Integers are
// in the driver's (the machine's) byte order.
constexpr size_t kItemsOffset = 4;
// Offsets in one item (NDIS_WLAN_BSSID_EX); the SSID is NDIS_802_11_SSID, a ULONG
// length and 32 bytes.
constexpr size_t kMacOffset = 4;
constexpr size_t kSsidLengthOffset = 12;
constexpr size_t kSsidOffset = 16;
constexpr size_t kSsidCapacity = 32;
constexpr size_t kRssiOffset = 52;
constexpr size_t kInfrastructureModeOffset = 92;
// The shortest item that holds every field read (through InfrastructureMode); the
// older NDIS_WLAN_BSSID items (104 bytes) qualify too.
constexpr size_t kMinItemLength = 96;
// Ndis802_11Infrastructure: an access point, as opposed to an ad-hoc station.
constexpr uint32_t kInfrastructure = 1;

// A scan record from a driver's fields: `mac` in the order the air carries it, an
// SSID of `ssidLength` bytes of which at most 32 are kept, `dbm` and `time`.
Core::ScannedAP scannedAp(const uint8_t* mac, const uint8_t* ssid, uint32_t ssidLength, int16_t dbm,
                          Core::TimeStamp time, Logger& log);

// Appends `ap` to `list` when `infrastructure` (an access point), logging it; else
// logs that it was left out, with the driver's `mode`.
void addHeard(Core::ApList& list, const Core::ScannedAP& ap, bool infrastructure, int mode,
              Logger& log);

// Replaces `list` with the infrastructure access points of the `size` bytes at
// `data`, in the driver's order, each stamped with `time`; ad-hoc items are left
// out with a debug line. A list whose bytes end before its count says, or an item
// whose Length is too short for its fields or runs past the end, is logged at
// error priority and ends the reading: the items before it are kept and false is
// returned.
bool readBssidList(const uint8_t* data, size_t size, Core::TimeStamp time, Core::ApList& list,
                   Logger& log);

}  // namespace ZEL::SPI::NdisBss

// Reading the nl80211 messages the Wi-Fi adapter receives: interfaces, scan events
// and BSS entries. Pure functions over one message, so they can be tested on
// messages built in memory.
//
// Every function takes a complete netlink message (header, generic-netlink header,
// attributes) whose length the caller has checked; attributes are validated
// against nl80211's types, and a message missing what a function needs gives an
// empty result rather than a partly filled one.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <string>

#include "core/scanned_ap.h"
#include "spi/wifi/driver_signal.h"

namespace ZEL::SPI {

// The SSID element (id 0) of 802.11 information elements; empty when absent or
// when an element runs past `length`.
std::string ssidFromInformationElements(const uint8_t* elements, size_t length);

// One entry of an NL80211_CMD_GET_INTERFACE reply.
struct InterfaceInfo {
    std::string name;
    uint32_t index = 0;
    uint32_t type = 0;  // enum nl80211_iftype
};
std::optional<InterfaceInfo> parseInterface(const nlmsghdr* message);

// What a message of the "scan" multicast group means for the interface `ifindex`.
enum class ScanEvent { None, Started, Results, Aborted };
ScanEvent scanEventFor(const nlmsghdr* message, uint32_t ifindex);

// The clocks a scan dump is read against: the wall clock the records are stamped
// in, and CLOCK_BOOTTIME in ns, the clock of NL80211_BSS_LAST_SEEN_BOOTTIME (0 when
// not read).
struct DumpTime {
    Core::TimeStamp now;
    uint64_t bootTimeNs = 0;
};

// One entry of an NL80211_CMD_GET_SCAN dump. Its age is the time since a frame of
// the BSS was last received: from NL80211_BSS_LAST_SEEN_BOOTTIME where the kernel
// gives it and the boot time was read, else NL80211_BSS_SEEN_MS_AGO, else 0; an
// entry stamped after the clocks were read has age 0. The record's time is `now`
// minus the age. Its signal comes from NL80211_BSS_SIGNAL_MBM (mBm / 100), else
// from NL80211_BSS_SIGNAL_UNSPEC (0..100) through rssToDbm, else it is unknown (-255).
struct BssEntry {
    Core::ScannedAP ap;
    uint64_t ageMs = 0;
    uint16_t capability = 0;  // 802.11 capability information field

    // The ESS bit: an access point of an infrastructure network. Ad-hoc (IBSS)
    // and mesh stations do not set it.
    bool infrastructure() const { return (capability & 0x0001) != 0; }
};
std::optional<BssEntry> parseBss(const nlmsghdr* message, const DumpTime& time);

}  // namespace ZEL::SPI

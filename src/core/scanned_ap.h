// One access point as a scan reports it.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/time_stamp.h"

namespace ZEL::Core {

// The MAC is stored last octet first: mac[5] is the first octet of the printed
// address, mac[0] the last. Every consumer (request text, tile keys, caller
// records) relies on this order.
using MacAddress = std::array<uint8_t, 6>;

// Whether two MACs are equal, as two integer compares; std::array's == calls
// memcmp, which dominates linear searches over a few hundred tracked APs.
inline bool sameMac(const MacAddress& a, const MacAddress& b) {
    uint32_t aHead, bHead;
    uint16_t aTail, bTail;
    std::memcpy(&aHead, a.data(), 4);
    std::memcpy(&bHead, b.data(), 4);
    std::memcpy(&aTail, a.data() + 4, 2);
    std::memcpy(&bTail, b.data() + 4, 2);
    return aHead == bHead && aTail == bTail;
}

struct ScannedAP {
    MacAddress mac{};
    int16_t rss = 0;         // received signal strength, dBm
    Core::TimeStamp time{};  // when the adapter heard it
    uint8_t ssidLength = 0;  // SSID as the adapter reported it, up to 32 bytes
    std::array<char, 32> ssid{};

    std::string ssidText() const { return std::string(ssid.data(), ssidLength); }
    void setSsid(std::string_view text);
};

// One scan's access points in the order the adapter reported them.
using ApList = std::vector<ScannedAP>;

// Twelve upper-case hex digits, first printed octet (mac[5]) first.
std::string macText(const MacAddress& mac);

// Parses 12 hex digits, optionally separated by ':' or '-' between octets, into the
// stored (last octet first) order. Empty on anything else.
std::optional<MacAddress> parseMacText(std::string_view text);

}  // namespace ZEL::Core

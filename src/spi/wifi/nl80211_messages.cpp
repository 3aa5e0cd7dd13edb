#include "spi/wifi/nl80211_messages.h"

#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace ZEL::SPI {
namespace {

using AttributeTable = std::array<nlattr*, NL80211_ATTR_MAX + 1>;
using BssTable = std::array<nlattr*, NL80211_BSS_MAX + 1>;

const nla_policy* attributePolicy() {
    static const auto policy = [] {
        std::array<nla_policy, NL80211_ATTR_MAX + 1> table{};
        table[NL80211_ATTR_IFINDEX].type = NLA_U32;
        table[NL80211_ATTR_IFNAME].type = NLA_STRING;
        table[NL80211_ATTR_IFTYPE].type = NLA_U32;
        table[NL80211_ATTR_BSS].type = NLA_NESTED;
        return table;
    }();
    return policy.data();
}

const nla_policy* bssPolicy() {
    static const auto policy = [] {
        std::array<nla_policy, NL80211_BSS_MAX + 1> table{};
        table[NL80211_BSS_BSSID].minlen = 6;
        table[NL80211_BSS_CAPABILITY].type = NLA_U16;
        table[NL80211_BSS_SIGNAL_MBM].type = NLA_U32;
        table[NL80211_BSS_SIGNAL_UNSPEC].type = NLA_U8;
        table[NL80211_BSS_SEEN_MS_AGO].type = NLA_U32;
        table[NL80211_BSS_LAST_SEEN_BOOTTIME].type = NLA_U64;
        return table;
    }();
    return policy.data();
}

// Parses the generic-netlink attributes of `message`; false when the message is
// too short for its headers or an attribute fails the policy.
bool parseAttributes(const nlmsghdr* message, AttributeTable& table) {
    table.fill(nullptr);
    auto* header = const_cast<nlmsghdr*>(message);
    return genlmsg_parse(header, 0, table.data(), NL80211_ATTR_MAX, attributePolicy()) == 0;
}

uint8_t commandOf(const nlmsghdr* message) {
    return static_cast<const genlmsghdr*>(nlmsg_data(message))->cmd;
}

int16_t signalOf(const BssTable& bss) {
    if (bss[NL80211_BSS_SIGNAL_MBM]) {
        auto mbm = static_cast<int32_t>(nla_get_u32(bss[NL80211_BSS_SIGNAL_MBM]));
        return static_cast<int16_t>(std::clamp<int32_t>(mbm / 100, INT16_MIN, INT16_MAX));
    }
    if (bss[NL80211_BSS_SIGNAL_UNSPEC]) {
        return rssToDbm(nla_get_u8(bss[NL80211_BSS_SIGNAL_UNSPEC]));
    }
    return rssToDbm(0);
}

uint64_t ageOf(const BssTable& bss, uint64_t bootTimeNs) {
    if (bss[NL80211_BSS_LAST_SEEN_BOOTTIME] && bootTimeNs != 0) {
        uint64_t seenNs = nla_get_u64(bss[NL80211_BSS_LAST_SEEN_BOOTTIME]);
        return seenNs < bootTimeNs ? (bootTimeNs - seenNs) / 1'000'000 : 0;
    }
    return bss[NL80211_BSS_SEEN_MS_AGO] ? nla_get_u32(bss[NL80211_BSS_SEEN_MS_AGO]) : 0;
}

// The probe response's elements, else the beacon's.
std::string ssidOf(const BssTable& bss) {
    for (int type : {NL80211_BSS_INFORMATION_ELEMENTS, NL80211_BSS_BEACON_IES}) {
        if (const nlattr* elements = bss[type]) {
            return ssidFromInformationElements(static_cast<const uint8_t*>(nla_data(elements)),
                                               static_cast<size_t>(nla_len(elements)));
        }
    }
    return {};
}

}  // namespace

std::string ssidFromInformationElements(const uint8_t* elements, size_t length) {
    constexpr uint8_t kSsidElement = 0;
    size_t pos = 0;
    while (pos + 2 <= length) {
        uint8_t id = elements[pos];
        size_t size = elements[pos + 1];
        if (pos + 2 + size > length) {
            return {};
        }
        if (id == kSsidElement) {
            return std::string(reinterpret_cast<const char*>(elements + pos + 2), size);
        }
        pos += 2 + size;
    }
    return {};
}

std::optional<InterfaceInfo> parseInterface(const nlmsghdr* message) {
    AttributeTable attributes;
    if (!parseAttributes(message, attributes) || !attributes[NL80211_ATTR_IFINDEX] ||
        !attributes[NL80211_ATTR_IFNAME] || !attributes[NL80211_ATTR_IFTYPE]) {
        return std::nullopt;
    }
    InterfaceInfo info;
    info.name = nla_get_string(attributes[NL80211_ATTR_IFNAME]);
    info.index = nla_get_u32(attributes[NL80211_ATTR_IFINDEX]);
    info.type = nla_get_u32(attributes[NL80211_ATTR_IFTYPE]);
    return info;
}

ScanEvent scanEventFor(const nlmsghdr* message, uint32_t ifindex) {
    AttributeTable attributes;
    if (!parseAttributes(message, attributes) || !attributes[NL80211_ATTR_IFINDEX] ||
        nla_get_u32(attributes[NL80211_ATTR_IFINDEX]) != ifindex) {
        return ScanEvent::None;
    }
    switch (commandOf(message)) {
        case NL80211_CMD_TRIGGER_SCAN:
            return ScanEvent::Started;
        case NL80211_CMD_NEW_SCAN_RESULTS:
            return ScanEvent::Results;
        case NL80211_CMD_SCAN_ABORTED:
            return ScanEvent::Aborted;
        default:
            return ScanEvent::None;
    }
}

std::optional<BssEntry> parseBss(const nlmsghdr* message, const DumpTime& time) {
    AttributeTable attributes;
    if (!parseAttributes(message, attributes) || !attributes[NL80211_ATTR_BSS]) {
        return std::nullopt;
    }
    BssTable bss{};
    if (nla_parse_nested(bss.data(), NL80211_BSS_MAX, attributes[NL80211_ATTR_BSS], bssPolicy()) !=
            0 ||
        !bss[NL80211_BSS_BSSID]) {
        return std::nullopt;
    }
    BssEntry entry;
    const auto* bssid = static_cast<const uint8_t*>(nla_data(bss[NL80211_BSS_BSSID]));
    for (size_t i = 0; i < entry.ap.mac.size(); ++i) {
        entry.ap.mac[i] = bssid[5 - i];
    }
    entry.ap.setSsid(ssidOf(bss));
    entry.ap.rss = signalOf(bss);
    entry.ageMs = ageOf(bss, time.bootTimeNs);
    uint64_t nowMs = time.now.totalMilliseconds();
    entry.ap.time =
        Core::TimeStamp::fromMilliseconds(entry.ageMs < nowMs ? nowMs - entry.ageMs : 0);
    if (bss[NL80211_BSS_CAPABILITY]) {
        entry.capability = nla_get_u16(bss[NL80211_BSS_CAPABILITY]);
    }
    return entry;
}

}  // namespace ZEL::SPI

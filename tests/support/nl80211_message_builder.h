// nl80211 messages as the kernel would send them, built attribute by attribute.
#pragma once

#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <string>
#include <vector>

#include "spi/wifi/nl80211_socket.h"

namespace ZEL::Testing {

using Bytes = std::vector<uint8_t>;
inline const Bytes kBssid = {0x02, 0x00, 0x00, 0x00, 0x01, 0x0a};

inline Bytes ssidElement(const std::string& ssid) {
    Bytes element{0, static_cast<uint8_t>(ssid.size())};
    element.insert(element.end(), ssid.begin(), ssid.end());
    return element;
}

class MessageBuilder {
  public:
    explicit MessageBuilder(uint8_t command) : message_(nlmsg_alloc()) {
        genlmsg_put(message_.get(), 0, 0, 0x1c, 0, 0, command, 0);  // the parsers ignore the id
    }
    MessageBuilder& put(int type, const Bytes& value) {
        nla_put(message_.get(), type, static_cast<int>(value.size()), value.data());
        return *this;
    }
    MessageBuilder& u32(int type, uint32_t value) {
        nla_put_u32(message_.get(), type, value);
        return *this;
    }
    MessageBuilder& u64(int type, uint64_t value) {
        nla_put_u64(message_.get(), type, value);
        return *this;
    }
    // Everything until endBss goes into the NL80211_ATTR_BSS nest.
    MessageBuilder& beginBss() {
        nest_ = nla_nest_start(message_.get(), NL80211_ATTR_BSS);
        return *this;
    }
    MessageBuilder& endBss() {
        nla_nest_end(message_.get(), nest_);
        return *this;
    }
    // A scan-dump entry with the attributes a real driver reports, left open for more.
    MessageBuilder& bss(const std::string& ssid, uint16_t capability, const Bytes& bssid = kBssid) {
        return u32(NL80211_ATTR_IFINDEX, 3)
            .beginBss()
            .put(NL80211_BSS_BSSID, bssid)
            .put(NL80211_BSS_CAPABILITY, {static_cast<uint8_t>(capability), 0})
            .put(NL80211_BSS_INFORMATION_ELEMENTS, ssidElement(ssid));
    }
    const nlmsghdr* header() const { return nlmsg_hdr(message_.get()); }

  private:
    SPI::Message message_;
    nlattr* nest_ = nullptr;
};

}  // namespace ZEL::Testing

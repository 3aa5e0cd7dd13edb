#include "spi/wifi/nl80211_messages.h"

#include <gtest/gtest.h>
#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <algorithm>
#include <vector>

#include "spi/wifi/nl80211_socket.h"

namespace ZEL::SPI::Wifi {
namespace {

using Bytes = std::vector<uint8_t>;
const Core::TimeStamp kNow{1'700'000'000, 500};
const Bytes kBssid = {0x02, 0x00, 0x00, 0x00, 0x01, 0x0a};

Bytes ssidElement(const std::string& ssid) {
    Bytes element(2 + ssid.size());
    element[1] = static_cast<uint8_t>(ssid.size());
    std::copy(ssid.begin(), ssid.end(), element.begin() + 2);
    return element;
}

// An nl80211 message as the kernel would send it, built attribute by attribute.
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
    MessageBuilder& bss(const std::string& ssid, uint16_t capability) {
        return u32(NL80211_ATTR_IFINDEX, 3)
            .beginBss()
            .put(NL80211_BSS_BSSID, kBssid)
            .put(NL80211_BSS_CAPABILITY, {static_cast<uint8_t>(capability), 0})
            .put(NL80211_BSS_INFORMATION_ELEMENTS, ssidElement(ssid));
    }
    const nlmsghdr* header() const { return nlmsg_hdr(message_.get()); }

  private:
    Message message_;
    nlattr* nest_ = nullptr;
};

Bytes mbm(int32_t value) {
    const auto bits = static_cast<uint32_t>(value);
    return {static_cast<uint8_t>(bits), static_cast<uint8_t>(bits >> 8),
            static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 24)};
}

TEST(Nl80211SignalTest, DriverValuesBecomeDbm) {
    // (50 - 10) * 85 / 90 - 95, truncated; -100001 is just below the scaling threshold.
    for (auto [driver, dbm] : {std::pair{-55, -55},
                               {50, -58},
                               {1, -103},
                               {99, -11},
                               {100, -255},
                               {0, -255},
                               {-6000000, -60},
                               {-100001, -1}}) {
        EXPECT_EQ(rssToDbm(driver), dbm) << driver;
    }
    // At the threshold nothing is scaled; the value must stay negative in 16 bits.
    EXPECT_LT(rssToDbm(-100000), 0);
    EXPECT_LT(rssToDbm(-40000), 0);
}

TEST(Nl80211SsidTest, FindsTheSsidElementWithinBounds) {
    Bytes cafe = ssidElement("cafe");
    Bytes ratesFirst = {1, 2, 0x82, 0x84};  // supported rates
    ratesFirst.insert(ratesFirst.end(), cafe.begin(), cafe.end());
    // Cut inside the SSID element: no SSID rather than a read past the end.
    Bytes cut(ratesFirst.begin(), ratesFirst.end() - 1);
    for (auto [elements, ssid] : {std::pair<Bytes, std::string>{ratesFirst, "cafe"},
                                  {cafe, "cafe"},
                                  {cut, ""},
                                  {{0, 0}, ""},
                                  {{1, 1, 0x82, 3, 1, 6}, ""},
                                  {{0}, ""}}) {
        EXPECT_EQ(ssidFromInformationElements(elements.data(), elements.size()), ssid);
    }
}

TEST(Nl80211BssTest, ReadsMacSsidAgeAndSignalPreferringMbmThenUnspecified) {
    struct Row {
        Bytes unspecified, mbm;
        uint32_t ageMs;  // 0: none reported, heard now
        int16_t rss;
        Core::TimeStamp time;
    };
    for (const Row& row :
         {Row{{}, mbm(-4700), 1700, -47, {1'699'999'998, 800}}, Row{{50}, {}, 0, -58, kNow},
          Row{{50}, mbm(-6100), 0, -61, kNow}, Row{{}, {}, 0, -255, kNow}}) {
        MessageBuilder message(NL80211_CMD_NEW_SCAN_RESULTS);
        message.bss("cafe", 0x0411);
        if (!row.unspecified.empty()) {
            message.put(NL80211_BSS_SIGNAL_UNSPEC, row.unspecified);
        }
        if (!row.mbm.empty()) {
            message.put(NL80211_BSS_SIGNAL_MBM, row.mbm);
        }
        if (row.ageMs) {
            message.u32(NL80211_BSS_SEEN_MS_AGO, row.ageMs);
        }
        auto entry = parseBss(message.endBss().header(), kNow);
        ASSERT_TRUE(entry);
        EXPECT_EQ(Core::macText(entry->ap.mac), "02000000010A");
        EXPECT_EQ(entry->ap.mac[0], 0x0a);  // stored last octet first
        EXPECT_EQ(entry->ap.ssidText(), "cafe");
        EXPECT_EQ(entry->ap.rss, row.rss);
        EXPECT_EQ(entry->ap.time, row.time);
        EXPECT_TRUE(entry->infrastructure());
    }
}

TEST(Nl80211BssTest, MalformedEntriesAreRejected) {
    MessageBuilder shortBssid(NL80211_CMD_NEW_SCAN_RESULTS);
    shortBssid.u32(NL80211_ATTR_IFINDEX, 3)
        .beginBss()
        .put(NL80211_BSS_BSSID, {1, 2, 3, 4, 5})
        .endBss();
    EXPECT_FALSE(parseBss(shortBssid.header(), kNow));
    MessageBuilder badSignal(NL80211_CMD_NEW_SCAN_RESULTS);
    badSignal.bss("a", 1).put(NL80211_BSS_SIGNAL_MBM, {7}).endBss();
    EXPECT_FALSE(parseBss(badSignal.header(), kNow));  // a u32 attribute one byte long

    // A complete entry whose header claims less than its generic-netlink header needs:
    // the length in the header, not the bytes behind it, bounds the parse.
    MessageBuilder truncated(NL80211_CMD_NEW_SCAN_RESULTS);
    truncated.bss("a", 1).endBss();
    const auto* start = reinterpret_cast<const uint8_t*>(truncated.header());
    Bytes copy(start, start + truncated.header()->nlmsg_len);
    ASSERT_TRUE(parseBss(reinterpret_cast<const nlmsghdr*>(copy.data()), kNow));
    reinterpret_cast<nlmsghdr*>(copy.data())->nlmsg_len = NLMSG_HDRLEN + 2;
    EXPECT_FALSE(parseBss(reinterpret_cast<const nlmsghdr*>(copy.data()), kNow));
}

}  // namespace
}  // namespace ZEL::SPI::Wifi

#include "spi/wifi/nl80211_messages.h"

#include <gtest/gtest.h>

#include "support/nl80211_message_builder.h"

namespace ZEL::SPI::Wifi {
namespace {

using namespace Testing;
const Core::TimeStamp kNow{1'700'000'000, 500};

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
    // The age: from the boot-clock stamp where it and the boot time are known (ns
    // truncated to ms; a stamp after the clocks were read is age 0), else SEEN_MS_AGO.
    constexpr uint64_t kBoot = 90'000'000'000;
    struct Row {
        Bytes unspecified, mbm;
        uint32_t ageMs;               // 0: none reported
        uint64_t seenBootNs, bootNs;  // 0: not reported, not read
        int16_t rss;
        uint64_t heardMsAgo;
    };
    for (const Row& row :
         {Row{{}, mbm(-4700), 1700, 0, kBoot, -47, 1700}, Row{{50}, {}, 0, 0, 0, -58, 0},
          Row{{50}, mbm(-6100), 0, 0, 0, -61, 0}, Row{{}, {}, 0, 0, 0, -255, 0},
          Row{{}, {}, 1700, kBoot - 2'500'999'999, kBoot, -255, 2500},
          Row{{}, {}, 1700, kBoot - 2'500'000'000, 0, -255, 1700},
          Row{{}, {}, 1700, kBoot + 1, kBoot, -255, 0}}) {
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
        if (row.seenBootNs) {
            message.u64(NL80211_BSS_LAST_SEEN_BOOTTIME, row.seenBootNs);
        }
        auto entry = parseBss(message.endBss().header(), {kNow, row.bootNs});
        ASSERT_TRUE(entry);
        EXPECT_EQ(Core::macText(entry->ap.mac), "02000000010A");
        EXPECT_EQ(entry->ap.mac[0], 0x0a);  // stored last octet first
        EXPECT_EQ(entry->ap.ssidText(), "cafe");
        EXPECT_EQ(entry->ap.rss, row.rss);
        EXPECT_EQ(entry->ageMs, row.heardMsAgo) << row.seenBootNs;
        EXPECT_EQ(entry->ap.time.totalMilliseconds(), kNow.totalMilliseconds() - row.heardMsAgo);
        EXPECT_TRUE(entry->infrastructure());
    }
}

TEST(Nl80211BssTest, MalformedEntriesAreRejected) {
    MessageBuilder shortBssid(NL80211_CMD_NEW_SCAN_RESULTS);
    shortBssid.u32(NL80211_ATTR_IFINDEX, 3)
        .beginBss()
        .put(NL80211_BSS_BSSID, {1, 2, 3, 4, 5})
        .endBss();
    EXPECT_FALSE(parseBss(shortBssid.header(), {kNow}));
    MessageBuilder badSignal(NL80211_CMD_NEW_SCAN_RESULTS);
    badSignal.bss("a", 1).put(NL80211_BSS_SIGNAL_MBM, {7}).endBss();
    EXPECT_FALSE(parseBss(badSignal.header(), {kNow}));  // a u32 attribute one byte long

    // A complete entry whose header claims less than its generic-netlink header needs:
    // the length in the header, not the bytes behind it, bounds the parse.
    MessageBuilder truncated(NL80211_CMD_NEW_SCAN_RESULTS);
    truncated.bss("a", 1).endBss();
    const auto* start = reinterpret_cast<const uint8_t*>(truncated.header());
    Bytes copy(start, start + truncated.header()->nlmsg_len);
    ASSERT_TRUE(parseBss(reinterpret_cast<const nlmsghdr*>(copy.data()), {kNow}));
    reinterpret_cast<nlmsghdr*>(copy.data())->nlmsg_len = NLMSG_HDRLEN + 2;
    EXPECT_FALSE(parseBss(reinterpret_cast<const nlmsghdr*>(copy.data()), {kNow}));
}

}  // namespace
}  // namespace ZEL::SPI::Wifi

#include "spi/wifi/nl80211_messages.h"

#include <gtest/gtest.h>
#include <linux/nl80211.h>
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "spi/wifi/nl80211_socket.h"
#include "spi/wifi/nl80211_scan_results.h"
#include "support/log_capture.h"

namespace ZEL::SPI::Wifi {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kFamily = 0x1c;  // any id: the parsers do not look at it
const Core::TimeStamp kNow{1'700'000'000, 500};

// An nl80211 message as the kernel would send it, built attribute by attribute.
class MessageBuilder {
  public:
    explicit MessageBuilder(uint8_t command) : message_(nlmsg_alloc()) {
        genlmsg_put(message_.get(), 0, 0, kFamily, 0, 0, command, 0);
    }
    MessageBuilder& u32(int type, uint32_t value) {
        nla_put_u32(message_.get(), type, value);
        return *this;
    }
    MessageBuilder& string(int type, const char* value) {
        nla_put_string(message_.get(), type, value);
        return *this;
    }
    // Everything until endBss goes into the NL80211_ATTR_BSS nest.
    MessageBuilder& beginBss() {
        nest_ = nla_nest_start(message_.get(), NL80211_ATTR_BSS);
        return *this;
    }
    MessageBuilder& bytes(int type, const Bytes& value) {
        nla_put(message_.get(), type, static_cast<int>(value.size()), value.data());
        return *this;
    }
    MessageBuilder& u16(int type, uint16_t value) {
        nla_put_u16(message_.get(), type, value);
        return *this;
    }
    MessageBuilder& u8(int type, uint8_t value) {
        nla_put_u8(message_.get(), type, value);
        return *this;
    }
    MessageBuilder& endBss() {
        nla_nest_end(message_.get(), nest_);
        return *this;
    }
    const nlmsghdr* header() const { return nlmsg_hdr(message_.get()); }

  private:
    Message message_;
    nlattr* nest_ = nullptr;
};

const Bytes kBssid = {0x02, 0x00, 0x00, 0x00, 0x01, 0x0a};
Bytes ssidElement(const std::string& ssid) {
    Bytes element(2 + ssid.size());
    element[1] = static_cast<uint8_t>(ssid.size());
    std::copy(ssid.begin(), ssid.end(), element.begin() + 2);
    return element;
}

// A scan-dump entry with the attributes a real driver reports; tests drop or
// change what they look at.
MessageBuilder& bssWith(MessageBuilder& builder, const Bytes& elements, uint16_t capability) {
    return builder.u32(NL80211_ATTR_IFINDEX, 3)
        .beginBss()
        .bytes(NL80211_BSS_BSSID, kBssid)
        .u16(NL80211_BSS_CAPABILITY, capability)
        .bytes(NL80211_BSS_INFORMATION_ELEMENTS, elements);
}

TEST(Nl80211SignalTest, DriverValuesBecomeDbm) {
    EXPECT_EQ(rssToDbm(-55), -55);
    EXPECT_EQ(rssToDbm(50), -58);  // (50 - 10) * 85 / 90 - 95, truncated
    EXPECT_EQ(rssToDbm(1), -103);
    EXPECT_EQ(rssToDbm(99), -11);
    EXPECT_EQ(rssToDbm(100), -255);
    EXPECT_EQ(rssToDbm(0), -255);
    EXPECT_EQ(rssToDbm(-6000000), -60);
    EXPECT_EQ(rssToDbm(-100001), -1);  // just below the scaling threshold
    // At the threshold nothing is scaled; the value must stay negative in 16 bits.
    EXPECT_LT(rssToDbm(-100000), 0);
    EXPECT_LT(rssToDbm(-40000), 0);
}

TEST(Nl80211SsidTest, FindsTheSsidElementWithinBounds) {
    Bytes elements = {1, 2, 0x82, 0x84};  // supported rates first
    Bytes ssid = ssidElement("cafe");
    elements.insert(elements.end(), ssid.begin(), ssid.end());
    EXPECT_EQ(ssidFromInformationElements(elements.data(), elements.size()), "cafe");
    EXPECT_EQ(ssidFromInformationElements(ssid.data(), ssid.size()), "cafe");

    // Cut inside the SSID element: no SSID rather than a read past the end.
    EXPECT_EQ(ssidFromInformationElements(elements.data(), elements.size() - 1), "");
    Bytes hidden = {0, 0};
    EXPECT_EQ(ssidFromInformationElements(hidden.data(), hidden.size()), "");
    Bytes noSsid = {1, 1, 0x82, 3, 1, 6};
    EXPECT_EQ(ssidFromInformationElements(noSsid.data(), noSsid.size()), "");
    Bytes lengthOnly = {0};
    EXPECT_EQ(ssidFromInformationElements(lengthOnly.data(), lengthOnly.size()), "");
}

TEST(Nl80211BssTest, ReadsMacSsidSignalAndAge) {
    MessageBuilder message(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(message, ssidElement("cafe"), 0x0411)
        .u32(NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(-4700))
        .u32(NL80211_BSS_SEEN_MS_AGO, 1700)
        .endBss();
    auto entry = parseBss(message.header(), kNow);
    ASSERT_TRUE(entry);
    EXPECT_EQ(Core::macText(entry->ap.mac), "02000000010A");
    EXPECT_EQ(entry->ap.mac[0], 0x0a);  // stored last octet first
    EXPECT_EQ(entry->ap.mac[5], 0x02);
    EXPECT_EQ(entry->ap.ssidText(), "cafe");
    EXPECT_EQ(entry->ap.rss, -47);
    EXPECT_EQ(entry->ap.time, (Core::TimeStamp{1'699'999'998, 800}));
    EXPECT_TRUE(entry->infrastructure());
}

TEST(Nl80211BssTest, SignalFallsBackToUnspecifiedThenUnknown) {
    MessageBuilder unspecified(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(unspecified, ssidElement("a"), 1).u8(NL80211_BSS_SIGNAL_UNSPEC, 50).endBss();
    auto entry = parseBss(unspecified.header(), kNow);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->ap.rss, -58);
    EXPECT_EQ(entry->ap.time, kNow);  // no age reported: heard now

    MessageBuilder both(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(both, ssidElement("a"), 1)
        .u8(NL80211_BSS_SIGNAL_UNSPEC, 50)
        .u32(NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(-6100))
        .endBss();
    EXPECT_EQ(parseBss(both.header(), kNow)->ap.rss, -61);

    MessageBuilder none(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(none, ssidElement("a"), 1).endBss();
    entry = parseBss(none.header(), kNow);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->ap.rss, -255);
}

TEST(Nl80211BssTest, MalformedEntriesAreRejected) {
    MessageBuilder noBss(NL80211_CMD_NEW_SCAN_RESULTS);
    noBss.u32(NL80211_ATTR_IFINDEX, 3);
    EXPECT_FALSE(parseBss(noBss.header(), kNow));

    MessageBuilder noBssid(NL80211_CMD_NEW_SCAN_RESULTS);
    noBssid.u32(NL80211_ATTR_IFINDEX, 3).beginBss().u16(NL80211_BSS_CAPABILITY, 1).endBss();
    EXPECT_FALSE(parseBss(noBssid.header(), kNow));

    MessageBuilder shortBssid(NL80211_CMD_NEW_SCAN_RESULTS);
    shortBssid.u32(NL80211_ATTR_IFINDEX, 3)
        .beginBss()
        .bytes(NL80211_BSS_BSSID, {1, 2, 3, 4, 5})
        .endBss();
    EXPECT_FALSE(parseBss(shortBssid.header(), kNow));

    MessageBuilder badSignal(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(badSignal, ssidElement("a"), 1).u8(NL80211_BSS_SIGNAL_MBM, 7).endBss();
    EXPECT_FALSE(parseBss(badSignal.header(), kNow));  // a u32 attribute one byte long

    // A complete entry whose header claims less than its generic-netlink header needs:
    // the length in the header, not the bytes behind it, bounds the parse.
    MessageBuilder truncated(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(truncated, ssidElement("a"), 1).endBss();
    const auto* start = reinterpret_cast<const uint8_t*>(truncated.header());
    Bytes copy(start, start + truncated.header()->nlmsg_len);
    ASSERT_TRUE(parseBss(reinterpret_cast<const nlmsghdr*>(copy.data()), kNow));
    reinterpret_cast<nlmsghdr*>(copy.data())->nlmsg_len = NLMSG_HDRLEN + 2;
    EXPECT_FALSE(parseBss(reinterpret_cast<const nlmsghdr*>(copy.data()), kNow));
}

TEST(Nl80211ScanResultsTest, KeepsInfrastructureEntriesAndLogsTheRest) {
    MessageBuilder infrastructure(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(infrastructure, ssidElement("cafe"), 0x0001)
        .u32(NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(-5500))
        .endBss();
    MessageBuilder adHoc(NL80211_CMD_NEW_SCAN_RESULTS);
    bssWith(adHoc, ssidElement("adhoc"), 0x0002)
        .u32(NL80211_BSS_SIGNAL_MBM, static_cast<uint32_t>(-4000))
        .endBss();
    std::vector<BssEntry> entries = {*parseBss(adHoc.header(), kNow),
                                     *parseBss(infrastructure.header(), kNow)};

    const std::string category = "ZEL.SPI.WifiAdapter.Nl80211WifiAdapter";
    Testing::LogCapture log(category);
    Core::ApList list(3);  // a previous scan's list is replaced, not appended to
    collectScanResults(entries, list, SPI::getLogger(category));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].rss, -55);
    EXPECT_EQ(list[0].ssidText(), "cafe");
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "scanned 2 APs"), 1u);
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "AP 02000000010A (adhoc) not infrastructure (2)"),
              1u);
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "scanned AP 02000000010A (cafe) -55"), 1u);
}

TEST(Nl80211EventTest, ScanEventsAreFilteredByInterface) {
    auto eventFor = [](uint8_t command, uint32_t ifindex) {
        MessageBuilder message(command);
        message.u32(NL80211_ATTR_IFINDEX, 4);
        return scanEventFor(message.header(), ifindex);
    };
    EXPECT_EQ(eventFor(NL80211_CMD_NEW_SCAN_RESULTS, 4), ScanEvent::Results);
    EXPECT_EQ(eventFor(NL80211_CMD_SCAN_ABORTED, 4), ScanEvent::Aborted);
    EXPECT_EQ(eventFor(NL80211_CMD_TRIGGER_SCAN, 4), ScanEvent::Started);
    EXPECT_EQ(eventFor(NL80211_CMD_NEW_SCAN_RESULTS, 5), ScanEvent::None);
    EXPECT_EQ(eventFor(NL80211_CMD_NEW_INTERFACE, 4), ScanEvent::None);

    MessageBuilder withoutInterface(NL80211_CMD_NEW_SCAN_RESULTS);
    EXPECT_EQ(scanEventFor(withoutInterface.header(), 0), ScanEvent::None);
}

}  // namespace
}  // namespace ZEL::SPI::Wifi

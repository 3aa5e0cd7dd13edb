#include "spi/wifi/ndis_bss_list.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "support/log_capture.h"

namespace ZEL::SPI::NdisBss {
namespace {

using Bytes = std::vector<uint8_t>;
using Testing::LogCapture;
const Core::TimeStamp kNow{1'700'000'000, 250};
const char kCategory[] = "ZEL.Test.NdisBss";

// One NDIS_WLAN_BSSID_EX as a driver lays it out, with `extra` bytes of
// information elements after the fixed 116.
struct Item {
    std::array<uint8_t, 6> mac{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::string ssid = "cafe";
    int32_t rssi = -60;
    uint32_t mode = kInfrastructure;
    size_t extra = 8;
    std::optional<uint32_t> ssidLength{};  // the SSID's own length when empty
    std::optional<uint32_t> length{};      // 116 + extra when empty
};

void putUlong(Bytes& bytes, size_t at, uint32_t value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
}

Bytes bssList(uint32_t count, const std::vector<Item>& items) {
    Bytes list(kItemsOffset);
    putUlong(list, 0, count);
    for (const Item& item : items) {
        Bytes bytes(116 + item.extra, 0xA5);  // filler where nothing is read
        putUlong(bytes, 0, item.length.value_or(bytes.size()));
        std::memcpy(bytes.data() + kMacOffset, item.mac.data(), 6);
        putUlong(bytes, kSsidLengthOffset, item.ssidLength.value_or(item.ssid.size()));
        std::memcpy(bytes.data() + kSsidOffset, item.ssid.data(), item.ssid.size());
        putUlong(bytes, kRssiOffset, static_cast<uint32_t>(item.rssi));
        putUlong(bytes, kInfrastructureModeOffset, item.mode);
        list.insert(list.end(), bytes.begin(), bytes.end());
    }
    return list;
}

bool read(const Bytes& bytes, Core::ApList& list) {
    return readBssidList(bytes.data(), bytes.size(), kNow, list, getLogger(kCategory));
}

TEST(NdisBssListTest, AccessPointsInDriverOrderSteppingByEachLength) {
    Item first, adHoc{.mac = {2, 0, 0, 0, 0, 0xAD}, .mode = 0 /* Ndis802_11IBSS */, .extra = 0};
    // An SSID length bound by its 32-byte field; an RSSI in 1/100000 dBm.
    Item last{{0xF0, 0xE1, 0xD2, 0xC3, 0xB4, 0xA5}, std::string(32, 'x'), -6000000, 1, 301, ~0u};
    Core::ApList list(3);  // replaced, not appended to
    ASSERT_TRUE(read(bssList(3, {first, adHoc, last}), list));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(Core::macText(list[0].mac), "001122334455");
    EXPECT_EQ(list[0].ssidText(), "cafe");
    EXPECT_EQ(list[0].rss, -60);
    EXPECT_EQ(list[0].time, kNow);
    EXPECT_EQ(Core::macText(list[1].mac), "F0E1D2C3B4A5");
    EXPECT_EQ(list[1].ssidText(), last.ssid);
    EXPECT_EQ(list[1].rss, -60);
}

TEST(NdisBssListTest, MalformedListsKeepTheItemsBeforeTheFault) {
    Bytes oneItem = bssList(1, {Item{}});
    struct Row {
        const char* name;
        Bytes bytes;
        bool ok;
        size_t kept;
    } rows[] = {
        {"no bytes", {}, false, 0},
        {"no items", bssList(0, {}), true, 0},
        {"count ignores trailing bytes", bssList(1, {Item{}, Item{}}), true, 1},
        {"shortest item", bssList(1, {{.extra = 0, .length = kMinItemLength}}), true, 1},
        {"count of 2^32-1", bssList(0xFFFFFFFF, {Item{}}), false, 1},
        {"item cut", Bytes(oneItem.begin(), oneItem.end() - 1), false, 0},
        {"length too short", bssList(2, {{}, {.length = kMinItemLength - 1}}), false, 1},
        {"length 0: no step", bssList(1, {{.length = 0}}), false, 0},
        {"length 2^32-1: a step back", bssList(1, {{.length = ~0u}}), false, 0},
        {"length past the end", bssList(1, {{.length = 116 + 8 + 1}}), false, 0},
    };
    for (const Row& row : rows) {
        Core::ApList list(2);
        LogCapture log(kCategory);
        EXPECT_EQ(read(row.bytes, list), row.ok) << row.name;
        EXPECT_EQ(list.size(), row.kept) << row.name;
        EXPECT_EQ(log.messages().back().priority == LogPriority::kError, !row.ok) << row.name;
    }
}

}  // namespace
}  // namespace ZEL::SPI::NdisBss

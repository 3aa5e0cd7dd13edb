#include "core/ap_list.h"

#include <gtest/gtest.h>

#include "spi/manual_clock.h"
#include "support/scripted_wifi_adapter.h"

namespace ZEL::API {
namespace {

using Testing::ap;

TEST(MacText, PrintsLastStoredByteFirst) {
    Core::ScannedAP record;
    record.mac = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    EXPECT_EQ(Core::macText(record.mac), "665544332211");
    record.mac = {0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(Core::macText(record.mac), "010000000000");
}

TEST(MacText, ParsesWithAndWithoutSeparators) {
    Core::MacAddress expected{0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA};
    EXPECT_EQ(Core::parseMacText("AABBCCDDEEFF"), expected);
    EXPECT_EQ(Core::parseMacText("aa:bb:cc:dd:ee:ff"), expected);
    EXPECT_EQ(Core::parseMacText("AA-BB-CC-DD-EE-FF"), expected);
    for (const char* bad : {"", "AABBCCDDEE", "AABBCCDDEEFF00", "AA:BBCCDDEEFF",
                            "AA:BB-CC:DD:EE:FF", "GGBBCCDDEEFF", "AA:BB:CC:DD:EE:FF:"}) {
        EXPECT_FALSE(Core::parseMacText(bad)) << bad;
    }
}

TEST(ListText, JoinsMacAndSignal) {
    EXPECT_EQ(toText(Core::ApList{ap("AABBCCDDEEFF", -75), ap("112233445566", -80)}),
              "AABBCCDDEEFF, -75; 112233445566, -80");
    EXPECT_EQ(toText(Core::ApList{}), "");
}

TEST(Unique, SortsByPrintedMacAndKeepsOnePerMac) {
    Core::ApList list{ap("020000000001", -1), ap("010000000002", -2), ap("020000000001", -3),
                ap("010000000001", -4)};
    unique(list);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(Core::macText(list[0].mac), "010000000001");
    EXPECT_EQ(Core::macText(list[1].mac), "010000000002");
    EXPECT_EQ(Core::macText(list[2].mac), "020000000001");
    Core::ApList empty;
    unique(empty);
    EXPECT_TRUE(empty.empty());
}

class RecentApListTest : public ::testing::Test {
  protected:
    SPI::ManualClock clock_;
    SPI::ScopedClock scoped_{clock_};
};

TEST_F(RecentApListTest, KeepsTimeOrderAndDropsEntriesOlderThanMaxAge) {
    Core::RecentApList recent(30000);
    recent.merge({ap("000000000001", -50)});
    clock_.advance(10000);
    recent.merge({ap("000000000002", -50), ap("000000000003", -50)});
    ASSERT_EQ(recent.size(), 3u);
    EXPECT_EQ(Core::macText(recent.entries()[0].ap.mac), "000000000001");
    EXPECT_EQ(recent.entries()[1].heard, recent.entries()[2].heard);  // order among equals is free
    EXPECT_EQ(recent.entries()[1].heard.totalMilliseconds(), clock_.nowMs());
    clock_.advance(20000);  // the first is now exactly 30000 ms old: kept
    recent.merge({});
    EXPECT_EQ(recent.size(), 3u);
    clock_.advance(1);
    recent.merge({});
    EXPECT_EQ(recent.size(), 2u);
}

TEST_F(RecentApListTest, FilterMovesApsHeardWithinFiveSeconds) {
    Core::RecentApList recent;
    recent.merge({ap("000000000001", -50)});
    clock_.advance(1);
    recent.merge({ap("000000000002", -50)});
    clock_.advance(5000);  // first: 5001 ms old, second: exactly 5000
    Core::ApList fresh{ap("000000000001", -60), ap("000000000002", -61), ap("000000000003", -62)};
    Core::ApList cached;
    filter(recent, fresh, cached);
    ASSERT_EQ(cached.size(), 1u);
    EXPECT_EQ(Core::macText(cached[0].mac), "000000000002");
    EXPECT_EQ(cached[0].rss, -61);  // this cycle's reading
    ASSERT_EQ(fresh.size(), 2u);
    EXPECT_EQ(Core::macText(fresh[0].mac), "000000000001");
    EXPECT_EQ(Core::macText(fresh[1].mac), "000000000003");
}

}  // namespace
}  // namespace ZEL::API

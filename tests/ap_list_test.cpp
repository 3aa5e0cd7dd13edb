#include "core/ap_list.h"

#include <gtest/gtest.h>

#include "support/test_platform.h"

namespace ZEL::Core {
namespace {

using Testing::ap;

TEST(MacText, PrintsLastStoredByteFirstAndParsesWithAndWithoutSeparators) {
    EXPECT_EQ(macText({0x11, 0x22, 0x33, 0x44, 0x55, 0x66}), "665544332211");
    MacAddress expected{0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA};
    EXPECT_EQ(parseMacText("AABBCCDDEEFF"), expected);
    EXPECT_EQ(parseMacText("aa:bb:cc:dd:ee:ff"), expected);
    EXPECT_EQ(parseMacText("AA-BB-CC-DD-EE-FF"), expected);
    for (const char* bad : {"", "AABBCCDDEE", "AABBCCDDEEFF00", "AA:BBCCDDEEFF",
                            "AA:BB-CC:DD:EE:FF", "GGBBCCDDEEFF", "AA:BB:CC:DD:EE:FF:"}) {
        EXPECT_FALSE(parseMacText(bad)) << bad;
    }
}

TEST(Unique, SortsByPrintedMacAndKeepsOnePerMac) {
    ApList list{ap("020000000001", -1), ap("010000000002", -2), ap("020000000001", -3),
                ap("010000000001", -4)};
    unique(list);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(macText(list[0].mac), "010000000001");
    EXPECT_EQ(macText(list[2].mac), "020000000001");
}

TEST(Age, IsComputedFromSecondsAndMillisecondsAndMaySignNegative) {
    struct Row {
        TimeStamp now, then;
        int32_t age;
    };
    for (Row row : {Row{{100, 250}, {95, 750}, 4500}, Row{{100, 0}, {100, 0}, 0},
                    Row{{95, 750}, {100, 250}, -4500}}) {
        EXPECT_EQ(ageMs(row.now, row.then), row.age) << row.now.seconds;
    }
}

TimeStamp at(uint64_t ms) {
    return TimeStamp::fromMilliseconds(1'700'000'000'000ull + ms);
}

TEST(RecentApList, KeepsTimeOrderAndDropsEntriesOlderThanMaxAge) {
    RecentApList recent(30000);
    recent.merge({ap("000000000001", -50)}, at(10000));
    recent.merge({ap("000000000004", -50)}, at(0));  // an older scan goes before it
    recent.merge({ap("000000000002", -50), ap("000000000003", -50)}, at(20000));
    ASSERT_EQ(recent.size(), 4u);
    EXPECT_EQ(macText(recent.entries()[0].ap.mac), "000000000004");
    EXPECT_EQ(macText(recent.entries()[1].ap.mac), "000000000001");
    recent.merge({}, at(30000));  // the oldest is now exactly 30000 ms old: kept
    EXPECT_EQ(recent.size(), 4u);
    recent.merge({}, at(30001));
    EXPECT_EQ(recent.size(), 3u);
}

TEST(RecentApList, FilterMovesApsHeardWithinFiveSeconds) {
    RecentApList recent;
    recent.merge({ap("000000000001", -50)}, at(0));
    recent.merge({ap("000000000002", -50)}, at(1));
    // At 5001 ms the first is 5001 ms old, the second exactly 5000.
    ApList fresh{ap("000000000001", -60), ap("000000000002", -61), ap("000000000003", -62)};
    ApList cached;
    filter(recent, at(5001), fresh, cached);
    ASSERT_EQ(cached.size(), 1u);
    EXPECT_EQ(macText(cached[0].mac), "000000000002");
    EXPECT_EQ(cached[0].rss, -61);  // this cycle's reading
    ASSERT_EQ(fresh.size(), 2u);
    EXPECT_EQ(macText(fresh[0].mac), "000000000001");
    EXPECT_EQ(macText(fresh[1].mac), "000000000003");
}

}  // namespace
}  // namespace ZEL::Core

#include "local/stored_ap_lookup.h"

#include <gtest/gtest.h>

#include "support/local_entries.h"

namespace ZEL::API {
namespace {

using Testing::entryAt;
using Testing::testMac;

Core::ScannedAP heard(int number, int16_t rss, uint64_t timeMs = 1'700'000'000'000ull) {
    Core::ScannedAP ap;
    ap.mac = testMac(number);
    ap.rss = rss;
    ap.time = Core::TimeStamp::fromMilliseconds(timeMs);
    return ap;
}

TEST(UpdateTrackedAps, NewApsTakeTheirStoredValuesOrTheUnknownDefaults) {
    std::vector<Local::LocalApEntry> tracked;
    const std::vector<Local::LocalApEntry> entries{entryAt(1, 10, 20, -60, 40, 0.3)};
    Local::updateTrackedAps(tracked, entries, {heard(1, -61, 5000), heard(2, -75, 5000)});
    ASSERT_EQ(tracked.size(), 2u);
    EXPECT_EQ(tracked[0].longitude, entries[0].longitude);
    EXPECT_EQ(tracked[0].quality, 40u);
    EXPECT_EQ(tracked[0].signalExponent, 0.3);
    EXPECT_EQ(tracked[0].time[0], Core::TimeStamp::fromMilliseconds(5000));
    // Not in the database: tracked all the same, at 0,0 with quality 50 and 0.25.
    EXPECT_EQ(tracked[1].latitude, 0.0);
    EXPECT_EQ(tracked[1].quality, 50u);
    EXPECT_EQ(tracked[1].signalExponent, 0.25);
    EXPECT_EQ(tracked[1].rss[0], -75);
}

TEST(UpdateTrackedAps, EachCallShiftsTheHistoryBySlot) {
    std::vector<Local::LocalApEntry> tracked;
    Local::updateTrackedAps(tracked, {}, {heard(1, -50, 1000), heard(2, -60, 1000)});
    Local::updateTrackedAps(tracked, {}, {heard(1, -51, 2000)});
    Local::updateTrackedAps(tracked, {}, {heard(3, -70, 3000), heard(1, -52, 3000)});
    ASSERT_EQ(tracked.size(), 3u);  // in order of first appearance
    EXPECT_EQ(tracked[2].mac, testMac(3));
    EXPECT_EQ(tracked[0].rss[0], -52);
    EXPECT_EQ(tracked[0].rss[2], -50);
    EXPECT_EQ(tracked[0].time[2], Core::TimeStamp::fromMilliseconds(1000));
    EXPECT_EQ(tracked[1].time[0], Core::TimeStamp{});
    EXPECT_EQ(tracked[1].rss[2], -60);
}

// An AP unheard for 21 calls is dropped; an AP whose slots sum to 0 too (a nonsense
// positive RSS cancelling an earlier one). Heard twice in one scan: one entry.
TEST(UpdateTrackedAps, ApsLeaveAfter21SilentCallsOrWhenTheirSlotsSumToZero) {
    std::vector<Local::LocalApEntry> tracked;
    Local::updateTrackedAps(tracked, {},
                            {heard(1, -50), heard(2, -60), heard(3, -50), heard(3, -55)});
    ASSERT_EQ(tracked.size(), 3u);
    EXPECT_EQ(tracked[2].rss[0], -55);
    Local::updateTrackedAps(tracked, {}, {heard(3, 55)});
    ASSERT_EQ(tracked.size(), 2u);
    EXPECT_EQ(tracked[1].rss[1], -60);
    for (int call = 2; call <= 20; ++call) {
        // AP 2 is heard again on the 20th call and keeps its history.
        Local::updateTrackedAps(tracked, {},
                                call == 20 ? Core::ApList{heard(2, -61)} : Core::ApList{});
    }
    ASSERT_EQ(tracked.size(), 2u);  // AP 1 sits in slot 20
    EXPECT_EQ(tracked[0].rss[20], -50);
    Local::updateTrackedAps(tracked, {}, {});
    ASSERT_EQ(tracked.size(), 1u);
    EXPECT_EQ(tracked[0].mac, testMac(2));
    EXPECT_EQ(tracked[0].rss[1], -61);
    EXPECT_EQ(tracked[0].rss[20], 0);  // its first scan fell off the end
}

}  // namespace
}  // namespace ZEL::API

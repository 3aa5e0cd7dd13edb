#include "local/motion_estimate.h"

#include <gtest/gtest.h>

#include "support/local_entries.h"

namespace ZEL::API {
namespace {

using Testing::destination;
using Testing::entryAt;
using Testing::kBaseLatitude;
using Testing::kBaseLongitude;
using Testing::recordAt;

constexpr uint64_t kNow = 1'700'000'000'000ull;

// Results from oldest to newest, added so that the last one is the newest.
Local::LocationHistory historyOf(std::initializer_list<Core::LocationRecord> oldestFirst) {
    Local::LocationHistory history;
    for (const Core::LocationRecord& record : oldestFirst) {
        history.add(record);
    }
    return history;
}

// A record `metres` from the base point in direction `bearing`.
Core::LocationRecord recordToward(double bearing, double metres, uint64_t timeMs,
                                  double speed = 10.0) {
    Core::LocationRecord record;
    destination(kBaseLatitude, kBaseLongitude, bearing, metres, record.latitude, record.longitude);
    record.time = Core::TimeStamp::fromMilliseconds(timeMs);
    record.speed = speed;
    return record;
}

// A tracked entry whose first `heard` slots alternate between -60 and -66 dBm
// (standard deviation 3, so never steady).
Local::LocalApEntry fluctuating(int number, int heard) {
    Local::LocalApEntry entry = entryAt(number, 0, 0);
    for (int slot = 0; slot < heard; ++slot) {
        entry.rss[slot] = slot % 2 == 0 ? -60 : -66;
    }
    return entry;
}

TEST(EstimateSpeed, NeedsAResultWithAPositionAndMoreThanTwoSamples) {
    const Core::LocationRecord raw = recordAt(200, 0, kNow);
    EXPECT_EQ(Local::estimateSpeed(raw, {}, {}), 0.0);
    Core::LocationRecord failed;
    failed.time = Core::TimeStamp::fromMilliseconds(kNow - 1000);
    EXPECT_EQ(Local::estimateSpeed(raw, historyOf({recordAt(0, 0, kNow - 2000), failed}), {}), 0.0);
    EXPECT_EQ(Local::estimateSpeed(raw, historyOf({recordAt(100, 0, kNow - 1000)}), {}), 0.0);
    Core::LocationRecord onMeridian = recordAt(0, 0, kNow - 2000);
    onMeridian.longitude = 0.0;  // a position needs both coordinates
    const auto unplaced = historyOf({onMeridian, recordAt(100, 0, kNow - 1000)});
    EXPECT_EQ(Local::estimateSpeed(raw, unplaced, {}), 0.0);
}

TEST(EstimateSpeed, StepSpeedsAreCappedAt150KmhBeforeTheMedian) {
    // Steps of 100 m/s are capped at 41.67 m/s, the overall 100 m/s is not:
    // (100 + 41.67) x 0.88 = 124.67 km/h (uncapped: 176, then capped to 150).
    const Core::LocationRecord raw = recordAt(200, 0, kNow);
    const auto results =
        historyOf({recordAt(0, 0, kNow - 2000, 0.0), recordAt(100, 0, kNow - 1000, 0.0)});
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {}), 124.66666666666671, 1e-3);
}

TEST(EstimateSpeed, MixesInTwelvePercentOfTheNewestResultsSpeedAsItStands) {
    // 10 m per second: (10 + 10) / 3.6 x 0.88 m/s plus 0.12 x 36 "km/h" read as m/s.
    const Core::LocationRecord raw = recordAt(20, 0, kNow);
    const auto results =
        historyOf({recordAt(0, 0, kNow - 2000, 0.0), recordAt(10, 0, kNow - 1000, 36.0)});
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {}), (20.0 / 3.6 * 0.88 + 0.12 * 36.0) * 3.6,
                1e-3);
}

TEST(EstimateSpeed, SkipsPairsWithTheSameTimeAndNeedsOneStep) {
    const Core::LocationRecord raw = recordAt(20, 0, kNow);
    Core::LocationRecord sameTime = recordAt(10, 0, kNow);
    EXPECT_EQ(Local::estimateSpeed(raw, historyOf({recordAt(0, 0, kNow), sameTime}), {}), 0.0);
    // One pair of equal times: the median comes from the other step alone (10 m/s),
    // the overall speed from first to last (20 m in 1 s).
    const auto results = historyOf({recordAt(0, 0, kNow - 1000), sameTime});
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {}), (20.0 + 10.0) / 3.6 * 0.88 * 3.6, 1e-3);
}

TEST(EstimateSpeed, OldestSampleMustBeUnder25001MsBeforeTheNewestResult) {
    const Core::LocationRecord raw = recordAt(30, 0, kNow);
    const auto fresh = historyOf({recordAt(0, 0, kNow - 26000), recordAt(10, 0, kNow - 1000)});
    EXPECT_GT(Local::estimateSpeed(raw, fresh, {}), 0.0);  // 25000 ms between them
    const auto stale = historyOf({recordAt(0, 0, kNow - 26001), recordAt(10, 0, kNow - 1000)});
    EXPECT_EQ(Local::estimateSpeed(raw, stale, {}), 0.0);
}

TEST(EstimateSpeed, UsesAtMostFiveSamples) {
    // A sixth, much older sample would fail the 25000 ms window if it were taken.
    const Core::LocationRecord raw = recordAt(40, 0, kNow);
    const auto results = historyOf({recordAt(-1000, 0, kNow - 60000), recordAt(0, 0, kNow - 4000),
                                    recordAt(10, 0, kNow - 3000), recordAt(20, 0, kNow - 2000),
                                    recordAt(30, 0, kNow - 1000)});
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {}), 20.0 / 3.6 * 0.88 * 3.6, 1e-3);
}

TEST(EstimateSpeed, SteadySignalsOrApsHeardInMostRecentScansCapOrStopTheSpeed) {
    const Core::LocationRecord raw = recordAt(200, 0, kNow);
    const auto results = historyOf({recordAt(0, 0, kNow - 2000), recordAt(100, 0, kNow - 1000)});
    Local::LocalApEntry steady = entryAt(1, 0, 0, -70);
    steady.rss[1] = steady.rss[2] = steady.rss[3] = -70;
    EXPECT_EQ(Local::estimateSpeed(raw, results, {steady}), 0.0);
    // Fluctuating by 3 dB and heard in 7 of 21 scans: no limit beyond 150 km/h.
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {fluctuating(1, 7)}), 124.66666666666671, 1e-3);
    // Heard in 8 of 21: above 7.5, capped at 4 m/s.
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {fluctuating(1, 8)}), 14.4, 1e-12);
    // 7 and 9: mean 8, still the cap; 8 and 9: mean 8.5, standing still.
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {fluctuating(1, 7), fluctuating(2, 9)}), 14.4,
                1e-12);
    EXPECT_EQ(Local::estimateSpeed(raw, results, {fluctuating(1, 8), fluctuating(2, 9)}), 0.0);
    // An entry not heard in slots 0..10 adds to the mean heard count only.
    Local::LocalApEntry lateOnly = entryAt(3, 0, 0);
    lateOnly.rss[15] = -80;
    EXPECT_NEAR(Local::estimateSpeed(raw, results, {fluctuating(1, 8), lateOnly}),
                124.66666666666671, 1e-3);
}

TEST(EstimateBearing, NeedsAPositionAndThreeMovingResultsTheLastUnder41001MsOld) {
    const Core::LocationRecord raw = recordToward(0, 0, kNow);
    auto track = [&](uint64_t oldestAge) {
        return historyOf({recordToward(270, 300, kNow - oldestAge),
                          recordToward(270, 200, kNow - 2000),
                          recordToward(270, 100, kNow - 1000)});
    };
    const auto moving = track(3000);
    EXPECT_NEAR(Local::estimateBearing(raw, moving), 90.0, 0.01);
    EXPECT_NEAR(Local::estimateBearing(raw, track(41000)), 90.0, 0.01);
    EXPECT_EQ(Local::estimateBearing(raw, track(41001)), 0.0);
    Core::LocationRecord zero;
    zero.time = raw.time;
    EXPECT_EQ(Local::estimateBearing(zero, moving), 0.0);
    EXPECT_EQ(Local::estimateBearing(raw, historyOf({recordToward(270, 200, kNow - 2000),
                                                     recordToward(270, 100, kNow - 1000)})),
              0.0);
    const auto stopped =
        historyOf({recordToward(270, 300, kNow - 3000, 0.0), recordToward(270, 200, kNow - 2000),
                   recordToward(270, 100, kNow - 1000)});
    EXPECT_EQ(Local::estimateBearing(raw, stopped), 0.0);
}

TEST(EstimateBearing, PicksTheUpperMiddleAndTheLastSampleGivesNoAngle) {
    // Angles: 0 (the raw record to itself), 45 (from the south-west) and 90 (from
    // the west); the oldest sample, to the south, gives none. Sorted, index
    // (3 + 1) / 2 = 2 is 90; the lower middle would be 45.
    const Core::LocationRecord raw = recordToward(0, 0, kNow);
    const auto results =
        historyOf({recordToward(180, 100, kNow - 3000), recordToward(270, 100, kNow - 2000),
                   recordToward(225, 100, kNow - 1000)});
    EXPECT_NEAR(Local::estimateBearing(raw, results), 90.0, 0.01);
    // Now the oldest lies at 240 degrees (it would give 60): the angles are 0, 45,
    // 90 and 0 (from the south), sorted 0, 0, 45, 90, index 2 -> 45. Counting the
    // oldest would make five angles and pick index 3 -> 60.
    const auto withSixty =
        historyOf({recordToward(240, 100, kNow - 4000), recordToward(180, 100, kNow - 3000),
                   recordToward(270, 100, kNow - 2000), recordToward(225, 100, kNow - 1000)});
    EXPECT_NEAR(Local::estimateBearing(raw, withSixty), 45.0, 0.01);
}

TEST(EstimateBearing, AnglesAroundSouthAreUnwrappedOnlyWhenMostLieBeyondAQuarter) {
    // From north-north-west, north-north-east and north: angles 170, -170 and -175
    // degrees, plus 0 for the raw record. Three of four beyond +-90 (more than
    // 4 / 2): -170 and -175 become 190 and 185; sorted 0, 170, 185, 190 -> 185.
    const Core::LocationRecord raw = recordToward(0, 0, kNow);
    const auto south =
        historyOf({recordToward(0, 100, kNow - 4000), recordToward(5, 100, kNow - 3000),
                   recordToward(10, 100, kNow - 2000), recordToward(350, 100, kNow - 1000)});
    EXPECT_NEAR(Local::estimateBearing(raw, south), 185.0, 0.01);
    // Two of four beyond (not more than half): kept as they are. 0, 170, -170, 45
    // spread widely (variance above 2.8), so only the first two count: 0 and 170.
    const auto mixed =
        historyOf({recordToward(0, 100, kNow - 4000), recordToward(225, 100, kNow - 3000),
                   recordToward(10, 100, kNow - 2000), recordToward(350, 100, kNow - 1000)});
    EXPECT_NEAR(Local::estimateBearing(raw, mixed), 170.0, 0.01);
}

TEST(EstimateBearing, NegativeAnglesGet36001Added) {
    // Moving west along the parallel: angles 0 and, from 100, 200 and 300 m east,
    // -90 plus 0.00048, 0.00096 and 0.00144 degrees (the great circle bends north).
    // Index 2 of the sorted four is -89.99856, which becomes 270.01144.
    const Core::LocationRecord raw = recordAt(0, 0, kNow);
    const auto results =
        historyOf({recordAt(0, 400, kNow - 4000, 10.0), recordAt(0, 300, kNow - 3000, 10.0),
                   recordAt(0, 200, kNow - 2000, 10.0), recordAt(0, 100, kNow - 1000, 10.0)});
    EXPECT_NEAR(Local::estimateBearing(raw, results), 270.01144, 0.00002);
}

}  // namespace
}  // namespace ZEL::API

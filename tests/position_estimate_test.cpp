#include "local/position_estimate.h"

#include <gtest/gtest.h>

#include <tuple>

#include "local/location_history.h"
#include "spi/log.h"
#include "support/local_entries.h"

namespace ZEL::Local {
namespace {

using Testing::entryAt;
using Testing::latitudeAt;
using Testing::longitudeAt;
using Testing::recordAt;

constexpr uint64_t kNow = 1'700'000'000'000ull;
constexpr const char* kCategory = "ZEL.API.LocationDeterminationPrivate";

SPI::Logger& log() {
    return SPI::getLogger(kCategory);
}

// Runs Local::estimatePosition at kNow and returns the raw record.
Core::LocationRecord estimate(std::vector<Local::LocalApEntry>& entries,
                              const Local::LocationHistory& history = {},
                              const std::vector<Local::LocalApEntry>& tracked = {}) {
    Core::LocationRecord raw;
    raw.time = Core::TimeStamp::fromMilliseconds(kNow);
    Local::estimatePosition(entries, raw, history, tracked, log());
    return raw;
}

Local::Reference referenceAtBase(int32_t ageMs = 0) {
    return {latitudeAt(0), longitudeAt(0), 0.0, Core::TimeStamp::fromMilliseconds(kNow - ageMs)};
}

TEST(GreatCircleDistance, UsesTheTruncatedDegreeFactorAndTheFixedRadius) {
    // 0.0174532925 x 6372800; the full pi/180 would give 0.000127 m more.
    EXPECT_NEAR(Local::greatCircleDistance(0.0, 0.0, 0.0, 1.0), 111226.3424439902, 1e-6);
    EXPECT_NEAR(Local::greatCircleDistance(0.0, 0.0, 0.0, 180.0), 20020741.662797034, 1e-3);
    // At 45 degrees sin^2 + cos^2 rounds above 1: the arc cosine's NaN counts as 0.
    EXPECT_EQ(Local::greatCircleDistance(45.0, 8.0, 45.0, 8.0), 0.0);
}

TEST(QualityFactor, IsFlatBelow18AndAbove30AndLogarithmicBetween) {
    for (auto [quality, factor] : {std::pair{17u, 0.001},
                                   {18u, 0.001},
                                   {24u, 0.5636076238316982},
                                   {30u, 1.0},
                                   {4000000000u, 1.0}}) {
        EXPECT_NEAR(Local::qualityFactor(quality), factor, 1e-15) << quality;
    }
}

// 75, then 150, then 300 m while fewer than three APs lie inside; one metre more
// per 100 ms of the reference's age, up to 20000 ms.
TEST(GateRadius, WidensWhileFewApsAreInsideAndWithTheReferencesAge) {
    struct Row {
        double thirdEast;
        int32_t ageMs;
        double radius;
    };
    for (Row row : {Row{30, 0, 75}, Row{100, 0, 150}, Row{200, 0, 300}, Row{30, 5000, 125},
                    Row{30, 20000, 275}, Row{30, 20001, 75}}) {
        std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 10), entryAt(2, 0, 20),
                                                 entryAt(3, 0, row.thirdEast)};
        EXPECT_DOUBLE_EQ(Local::gateRadius(entries, referenceAtBase(), row.ageMs), row.radius)
            << row.thirdEast << " m, " << row.ageMs << " ms";
    }
}

TEST(GateRadius, AnApAtExactlyTheRadiusStaysButDoesNotCount) {
    std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 0), entryAt(2, 0, 10), entryAt(3, 0, 60),
                                             entryAt(4, 0, 61)};
    const Reference reference = referenceAtBase();
    const double radius = Local::distanceFrom(reference, entries[2]);
    EXPECT_EQ(Local::countWithin(entries, reference, radius), 2u);
    Local::removeBeyond(entries, reference, radius);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[2].mac, Testing::testMac(3));
}

TEST(EstimatePosition, WithoutHistoryTheReferenceIsTheLowerMedianOfEachAxis) {
    // Lower median: (0 N, 0 E); A is 200 m from it and stays, B 450 m and goes.
    // The upper median (450 N, 200 E) would have kept B instead.
    std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 200), entryAt(2, 450, 0)};
    const Core::LocationRecord raw = estimate(entries);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_NEAR(raw.longitude, longitudeAt(200), 1e-12);
}

TEST(EstimatePosition, GateDropsTheFarApOfThreeAndAveragesEqualWeights) {
    std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 0), entryAt(2, 50, 0),
                                             entryAt(3, 1000, 0)};
    const Core::LocationRecord raw = estimate(entries);
    EXPECT_EQ(raw.nap, 2);
    EXPECT_NEAR(raw.latitude, latitudeAt(25), 1e-12);
}

TEST(EstimatePosition, AHistoryPositionUnder20000MsIsTheReference) {
    auto entries = [] {
        return std::vector<Local::LocalApEntry>{entryAt(1, 1000, 50), entryAt(2, 1000, -50),
                                                entryAt(3, 0, 0), entryAt(4, 0, 10)};
    };
    Local::LocationHistory history;
    history.add(recordAt(1000, 0, kNow - 19999));
    auto list = entries();
    Core::LocationRecord raw = estimate(list, history);
    EXPECT_NEAR(raw.latitude, latitudeAt(1000), 1e-12);  // the two APs near it

    // At exactly 20000 ms it is too old: the median (0 N, 0 E) decides.
    history.clear();
    history.add(recordAt(1000, 0, kNow - 20000));
    list = entries();
    raw = estimate(list, history);
    EXPECT_NEAR(raw.longitude, longitudeAt(5), 1e-12);
}

TEST(EstimatePosition, RssOfMinus20OrStrongerIsWeightedAsMinus90) {
    for (int32_t strong : {-20, 10}) {
        std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 0, strong), entryAt(2, 0, 20, -90)};
        EXPECT_NEAR(estimate(entries).longitude, longitudeAt(10), 1e-12) << strong;
    }
    std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 0, -21), entryAt(2, 0, 20, -90)};
    EXPECT_LT(estimate(entries).longitude, longitudeAt(1));
}

TEST(EstimatePosition, SignalExponentIsClampedToItsRange) {
    // Exponent 0.9 counts as 0.5: weights 10^-2 and 10^-3, B pulls 1/11 of the way.
    std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 0, -40, 50, 0.9),
                                             entryAt(2, 0, 100, -60, 50, 0.5)};
    Core::LocationRecord raw = estimate(entries);
    EXPECT_NEAR(raw.longitude, longitudeAt(0) + (longitudeAt(100) - longitudeAt(0)) / 11.0, 1e-12);

    // Exponent 0.1 counts as 0.16667: B pulls 0.31701 of the way, not 0.53831.
    entries = {entryAt(1, 0, 0, -40, 50, 0.16667), entryAt(2, 0, 100, -60, 50, 0.1)};
    raw = estimate(entries);
    EXPECT_NEAR(raw.longitude,
                longitudeAt(0) + (longitudeAt(100) - longitudeAt(0)) * 0.3170106894167442, 1e-12);
}

TEST(EstimatePosition, LowQualityApsWeighAThousandthOfGoodOnes) {
    std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 0, -60, 31),
                                             entryAt(2, 0, 100, -60, 17)};
    const Core::LocationRecord raw = estimate(entries);
    EXPECT_NEAR(raw.longitude, longitudeAt(0) + (longitudeAt(100) - longitudeAt(0)) * 0.001 / 1.001,
                1e-12);
}

TEST(EstimatePosition, RssIsAveragedOverTheTrackedHistoryOnlyBelowTheSpeedLimit) {
    // A: now -50, heard at -70 and -90 in slots 1 and 4: mean -70, as B.
    Local::LocalApEntry trackedA = entryAt(1, 0, 0, -50);
    trackedA.rss[1] = -70;
    trackedA.rss[4] = -90;
    trackedA.rss[5] = -30;  // beyond slot 4: not used
    const std::vector<Local::LocalApEntry> tracked{trackedA};
    auto run = [&](double referenceSpeed) {
        Local::LocationHistory history;
        history.add(recordAt(0, 0, kNow - 1000, referenceSpeed));
        std::vector<Local::LocalApEntry> entries{entryAt(1, 0, 0, -50), entryAt(2, 0, 100, -70)};
        return estimate(entries, history, tracked).longitude;
    };
    const double midpoint = longitudeAt(0) + (longitudeAt(100) - longitudeAt(0)) / 2.0;
    const double unaveraged = longitudeAt(0) + (longitudeAt(100) - longitudeAt(0)) / 11.0;
    EXPECT_NEAR(run(16.09), midpoint, 1e-12);
    EXPECT_NEAR(run(Local::kRssAveragingSpeedLimit), unaveraged, 1e-12);
    EXPECT_NEAR(run(16.1), unaveraged, 1e-12);
}

TEST(EstimatePosition, WithNoApLeftTheNewestRecentHistoryPositionIsCopied) {
    Local::LocationHistory history;
    Core::LocationRecord old = recordAt(300, 400, kNow - 15000, 12.5, 45.0);
    old.hpe = 42.0;
    old.nap = 7;
    history.add(old);
    Core::LocationRecord failed;  // newer, but without a position
    failed.time = Core::TimeStamp::fromMilliseconds(kNow - 1000);
    history.add(failed);
    for (bool farAps : {false, true}) {
        std::vector<Local::LocalApEntry> entries;
        if (farAps) {
            entries = {entryAt(1, 5000, 0), entryAt(2, 5000, 10)};  // all beyond the gate
        }
        const Core::LocationRecord raw = estimate(entries, history);
        EXPECT_TRUE(entries.empty());
        EXPECT_EQ(raw.longitude, old.longitude);
        EXPECT_EQ(std::tie(raw.hpe, raw.nap, raw.speed, raw.bearing),
                  std::tie(old.hpe, old.nap, old.speed, old.bearing));
        EXPECT_EQ(raw.time, old.time);
    }
    // At 20000 ms the position is too old to copy: it stays zero, stamped now.
    history.clear();
    history.add(recordAt(300, 400, kNow - 20000, 12.5, 45.0));
    std::vector<Local::LocalApEntry> none;
    const Core::LocationRecord raw = estimate(none, history);
    EXPECT_EQ(raw.latitude, 0.0);
    EXPECT_EQ(raw.speed, 0.0);
    EXPECT_EQ(raw.time, Core::TimeStamp::fromMilliseconds(kNow));
}

TEST(EstimateHpe, FollowsTheCountAndTheSmallestStoredExponent) {
    EXPECT_EQ(Local::estimateHpe({}), 150.0);
    // One AP: (a + 5.810575246949448 - 4) x 15.101289134438305 + 31.73.
    EXPECT_NEAR(Local::estimateHpe({entryAt(1, 0, 0, -60, 50, 0.25)}), 69.0545630800857, 1e-9);
    // The smallest exponent is taken as stored, below the clamp of the weights.
    EXPECT_NEAR(Local::estimateHpe({entryAt(1, 0, 0, -60, 50, 0.1)}), 62.46599170244925, 1e-9);
    std::vector<Local::LocalApEntry> four;
    for (int i = 0; i < 4; ++i) {
        four.push_back(entryAt(i, 0, i, -60, 50, 0.5));
    }
    EXPECT_NEAR(Local::estimateHpe(four), 75.47236280887124, 1e-9);
    std::vector<Local::LocalApEntry> many(30, entryAt(1, 0, 0, -60, 50, 1.0 / 6.0));
    EXPECT_EQ(Local::estimateHpe(many), 1.0);  // never below one metre
}

}  // namespace
}  // namespace ZEL::Local

// Learning (learn/learning.h) on small observation sets with known answers.
#include <gtest/gtest.h>

#include <cmath>

#include "learn/learning.h"
#include "local/position_estimate.h"

namespace ZEL::Learn {
namespace {

constexpr double kLatitude = 46.0, kLongitude = 9.0;
constexpr uint64_t kDay = 86'400'000;

// `count` observations on a circle of `radius` m around the point `east`, `north` m
// from (kLatitude, kLongitude), at `rss`, one a minute from `timeMs`.
std::vector<Observation> ring(double east, double north, double radius, int count, int rss,
                              uint64_t timeMs) {
    std::vector<Observation> observations;
    for (int i = 0; i < count; ++i) {
        const double angle = 2 * M_PI * i / count;
        const double x = east + radius * std::cos(angle), y = north + radius * std::sin(angle);
        observations.push_back({{1, 2, 3, 4, 5, 6},
                                kLatitude + y / 111'226.0,
                                kLongitude + x / (111'226.0 * std::cos(kLatitude * M_PI / 180)),
                                5.0,
                                rss,
                                timeMs + 60'000u * i});
    }
    return observations;
}

std::vector<Observation> operator+(std::vector<Observation> a, const std::vector<Observation>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<Observation> fixedTo(double accuracy, std::vector<Observation> observations) {
    for (Observation& observation : observations) {
        observation.accuracy = accuracy;
    }
    return observations;
}

LearnedAp learnAll(const std::vector<Observation>& observations) {
    ApSummary summary;
    for (const Observation& observation : observations) {
        summary.add(observation);
    }
    return learn(observations.front().mac, summary);
}

// Metres from the learned position to the point `east`, `north`.
double missBy(const LearnedAp& ap, double east, double north) {
    return Local::greatCircleDistance(
        ap.position.latitude, ap.position.longitude, kLatitude + north / 111'226.0,
        kLongitude + east / (111'226.0 * std::cos(kLatitude * M_PI / 180)));
}

TEST(Learning, VerdictAndPositionOfSmallSets) {
    // A drive: one observation every 80 m, 10 s apart, along 4 km.
    std::vector<Observation> drive;
    for (int i = 0; i < 50; ++i) {
        drive = drive + ring(80.0 * i, 0, 0, 1, -70, 1000 + 10'000u * i);
    }
    struct Row {
        const char* name;
        std::vector<Observation> observations;
        Verdict verdict;
        double east, north, tolerance;  // where it must be learned
    } rows[] = {
        {"ring", ring(0, 0, 30, 8, -70, kDay), Verdict::Placed, 0, 0, 0.5},
        // A plain mean would be 20 m off; the biweight rejects the outlier.
        {"outlier 180 m away", ring(0, 0, 30, 8, -70, kDay) + ring(180, 0, 0, 1, -70, kDay),
         Verdict::Placed, 0, 0, 2},
        {"outlier 3 km away", ring(0, 0, 30, 8, -70, kDay) + ring(3000, 0, 0, 1, -40, kDay),
         Verdict::Placed, 0, 0, 0.5},
        // Weighted by power: the strong side draws the position towards it.
        {"strong east", ring(20, 0, 10, 6, -50, kDay) + ring(-20, 0, 10, 6, -90, kDay),
         Verdict::Placed, 19.8, 0, 0.5},
        {"moved 2 km", ring(0, 0, 30, 6, -70, kDay) + ring(2000, 0, 30, 6, -70, 3 * kDay),
         Verdict::Moved, 2000, 0, 0.5},
        {"back and forth",
         ring(0, 0, 30, 6, -70, kDay) + ring(2000, 0, 30, 6, -70, 2 * kDay) +
             ring(0, 0, 30, 6, -70, 3 * kDay),
         Verdict::Moving, 0, 0, 0},
        {"places minutes apart", ring(0, 0, 30, 6, -70, kDay) + ring(2000, 0, 30, 6, -70, kDay),
         Verdict::Moving, 0, 0, 0},
        {"along a drive", drive, Verdict::Moving, 0, 0, 0},
        {"once", ring(40, 10, 0, 1, -80, 0), Verdict::Placed, 40, 10, 0.5},
        // Weighted by the fixes' stated accuracy: 5 m fixes count 9 times more than 60 m.
        {"accurate east", ring(8, 0, 3, 6, -70, kDay) + fixedTo(60, ring(-8, 0, 3, 6, -70, kDay)),
         Verdict::Placed, 7.4, 0, 0.5},
    };
    for (const Row& row : rows) {
        const LearnedAp ap = learnAll(row.observations);
        EXPECT_EQ(ap.verdict, row.verdict) << row.name;
        if (row.verdict != Verdict::Moving) {
            EXPECT_LT(missBy(ap, row.east, row.north), row.tolerance) << row.name;
        }
    }
}

TEST(Learning, QualityGrowsWithEvidenceWithinTheStoredRange) {
    struct Row {
        std::vector<Observation> observations;
        uint32_t low, high;
    } rows[] = {
        {ring(0, 0, 0, 1, -70, 0), 22, 29},      // one: part weight
        {ring(0, 0, 30, 12, -70, 0), 30, 40},    // a dozen: full weight
        {ring(0, 0, 300, 12, -70, 0), 18, 24},   // a dozen spread far
        {ring(0, 0, 1, 3000, -70, 0), 60, 145},  // thousands close together
    };
    for (const Row& row : rows) {
        const uint32_t quality = learnAll(row.observations).position.quality;
        EXPECT_GE(quality, row.low) << row.observations.size();
        EXPECT_LE(quality, row.high) << row.observations.size();
    }
}

TEST(Learning, SignalExponentFromThePathLoss) {
    // RSS = -30 - 10 n log10(d) on rings of 10, 20, 40... m; the exponent is 2 / n
    // within 1/6..1/2.
    struct Row {
        double n;
        int rings, points;
        bool fitted;
        double exponent;
        bool outlier = false;  // one more observation at 480 m, at -80 dBm
    } rows[] = {
        {5.0, 6, 8, true, 0.4},
        {6.0, 6, 8, true, 1.0 / 3},
        {8.0, 6, 8, true, 0.25},
        {16.0, 6, 8, true, 1.0 / 6},
        {2.0, 6, 8, true, 0.5},
        {3.0, 2, 2, false, kDefaultExponent},  // 4 cells: too few to fit
        {5.0, 6, 8, true, 0.4, true},          // a rejected outlier does not count
    };
    for (const Row& row : rows) {
        std::vector<Observation> observations;
        for (int i = 0; i < row.rings; ++i) {
            const double d = 10.0 * std::pow(row.points == 2 ? 4 : 2, i);
            const int rss = static_cast<int>(std::lround(-30 - 10 * row.n * std::log10(d)));
            observations = observations + ring(0, 0, d, row.points, rss, 0);
        }
        if (row.outlier) {
            observations = observations + ring(480, 0, 0, 1, -80, 0);
        }
        const LearnedAp ap = learnAll(observations);
        EXPECT_EQ(ap.exponentFitted, row.fitted) << row.n;
        EXPECT_NEAR(ap.position.signalExponent, row.exponent, 0.03) << row.n;
    }
}

TEST(Learning, MergedSummariesLearnWhatAllObservationsAtOnceDo) {
    const std::vector<Observation> all = ring(0, 0, 40, 9, -60, kDay) +
                                         ring(10, 5, 80, 7, -85, kDay) +
                                         ring(2500, 0, 20, 5, -75, 4 * kDay);
    for (size_t split : {size_t{1}, size_t{8}, size_t{15}}) {
        ApSummary a, b;
        for (size_t i = 0; i < all.size(); ++i) {
            (i < split ? a : b).add(all[i]);
        }
        b.merge(a);
        const LearnedAp merged = learn(all[0].mac, b), whole = learnAll(all);
        EXPECT_EQ(merged.verdict, Verdict::Moved);
        EXPECT_NEAR(merged.position.latitude, whole.position.latitude, 1e-9) << split;
        EXPECT_NEAR(merged.position.longitude, whole.position.longitude, 1e-9) << split;
        EXPECT_EQ(merged.position.quality, whole.position.quality) << split;
        EXPECT_NEAR(merged.position.signalExponent, whole.position.signalExponent, 1e-9);
    }
    // Too many cells for any fixed access point, in one summary or by merging.
    ApSummary wide, half;
    for (size_t i = 0; i <= kMaxCells; ++i) {
        Observation observation = all[0];
        observation.latitude = kCellDegrees * (static_cast<double>(i % 100) + 0.5);
        observation.longitude = kCellDegrees * (static_cast<double>(i / 100) + 0.5);
        (i % 2 ? wide : half).add(observation);
    }
    EXPECT_FALSE(wide.overflowing);
    wide.merge(half);
    EXPECT_TRUE(wide.overflowing);
    EXPECT_EQ(learn(all[0].mac, wide).verdict, Verdict::Moving);
}

}  // namespace
}  // namespace ZEL::Learn

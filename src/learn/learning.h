// Learning access-point positions from observations. This header states the rules
// once; learning.cpp follows them and the tests check them on small sets.
//
// An OBSERVATION is one access point heard at one position fix: the MAC, the fix's
// latitude and longitude (degrees) and its stated accuracy (metres, 0 = not stated),
// the RSS (dBm, 0 = not known) and the time (ms since 1970, 0 = not known).
//
// PIPELINE, partitioned by MAC: observations -> one ApSummary per MAC (mergeable) ->
// one LearnedAp per MAC. Summaries of disjoint batches merge into the summary of
// their union (merge is commutative and associative up to floating-point rounding),
// so a rebuild may keep summaries and add only what was observed since.
//
// SUMMARY. Observations are grouped by grid cell (kCellDegrees of latitude and of
// longitude, about 11 m by 11 m or less). A cell keeps the count, the sums of
// weight, weighted latitude and longitude, stated accuracy, the known RSS values
// and their squares, and the oldest and newest time. An observation's weight is
//     w = 10^(RSS / 20) / (kRangeMetres^2 + accuracy^2)
// (RSS not known counts as kUnknownRss, accuracy not stated as kDefaultAccuracy):
// a strong signal says the device was close, and a fix of 50 m says little about a
// point seen from 30 m. A summary holding more than kMaxCells cells is overflowing:
// its cells are dropped and only the flag and the count remain (no fixed access
// point is heard over that many cells, so the verdict is already Moving).
//
// VERDICT, on the cells' weighted centroids:
//   1. Clusters: cells joined, transitively, when their centroids lie within
//      kLinkMetres. A cluster is significant when it holds at least
//      max(2, kSignificantShare of all observations) observations; when none is,
//      every cluster is.
//   2. One significant cluster: it is kept; the others are outliers.
//      Several: ordered by their newest observation, the newest is kept when all its
//      observations are at least kMoveGapMs newer than every observation of the
//      others (the access point was moved: verdict Moved, position from the new
//      place only); otherwise it was heard in far-apart places at interleaved or
//      close times, a hotspot carried around: verdict Moving, left out. (A vehicle's
//      hotspot met along one drive forms a chain of clusters minutes apart.)
//   3. Within the kept cluster, more than kFarShare of the observations farther than
//      kHotspotMetres from its weighted median also means Moving (seen all along a
//      track): left out.
// POSITION: starting at the weighted per-axis median of the kept cells, a weighted
// mean re-weighted by Tukey's biweight of each cell's distance (cut-off
// kBiweightCutoff times the scale, the scale being 1.4826 times the median distance
// of the observations, but at least kMinScaleMetres), repeated until it moves less
// than 0.1 m or kIterations times. Cells at the cut-off or beyond are rejected.
// SPREAD s: the root weighted mean square distance of the cells' observations from
// the position (accepted cells, each cell's observations counted at its centroid).
// QUALITY: n accepted observations, mean stated accuracy a; the uncertainty
//     u = sqrt((s^2 + a^2 + kPriorSpreadMetres^2) / n) metres,
//     quality = 18 + 12 * log2(1 + kQualityMetres / u), rounded, within 18..145.
// The estimator's quality factor ramps from almost no weight at 18 to full weight at
// 30: one observation gives about 27, a dozen within 30 m about 35.
// SIGNAL EXPONENT: the estimator weighs an access point by (RSS in mW)^exponent.
// With a path loss RSS = A - 10 n log10(d), that weight is d^(-n * exponent); the
// exponent kDistancePower / n makes every access point's weight the inverse square of
// its distance whatever its own path loss. n is the least-squares slope of the
// accepted cells' mean RSS against 10 log10(distance) (distance at least 1 m, each
// cell weighted by its count of known RSS), fitted when at least kMinFitCells cells
// have a known RSS and their log distances spread by at least kMinFitSpread (dB) of
// standard deviation; the exponent is then clamped to the stored 1/6..1/2. Otherwise,
// and when the slope is not a loss (n <= 0), the exponent is kDefaultExponent.
// TUNING: kDistancePower, kDefaultExponent and kBiweightCutoff are the values with
// which the estimator located best on real data (bench/learn_accuracy.sh: smaller
// powers, a default of 0.25..0.375 and cut-offs of 2.5..4.7 all located worse).
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "core/scanned_ap.h"
#include "tiles/tile_writer.h"

namespace ZEL::Learn {

struct Observation {
    Core::MacAddress mac{};  // stored last octet first, like every Core::MacAddress
    double latitude = 0.0;   // degrees
    double longitude = 0.0;  // degrees
    double accuracy = 0.0;   // metres; 0 when the fix did not state it
    int rss = 0;             // dBm; 0 when not known
    uint64_t timeMs = 0;     // ms since 1970; 0 when not known
};

inline constexpr double kCellDegrees = 0.0001;
inline constexpr size_t kMaxCells = 4096;
inline constexpr double kRangeMetres = 20.0;
inline constexpr double kDefaultAccuracy = 10.0;
inline constexpr int kUnknownRss = -90;
inline constexpr double kLinkMetres = 250.0;
inline constexpr double kSignificantShare = 0.1;
inline constexpr uint64_t kMoveGapMs = 3'600'000;
inline constexpr double kHotspotMetres = 500.0;
inline constexpr double kFarShare = 0.2;
inline constexpr double kBiweightCutoff = 2.0;
inline constexpr double kMinScaleMetres = 10.0;
inline constexpr int kIterations = 20;
inline constexpr double kPriorSpreadMetres = 30.0;
inline constexpr double kQualityMetres = 20.0;
inline constexpr double kDistancePower = 2.0;
inline constexpr size_t kMinFitCells = 5;
inline constexpr double kMinFitSpread = 1.5;
inline constexpr double kDefaultExponent = 0.5;

struct Cell {
    int32_t row = 0;  // floor(latitude / kCellDegrees)
    int32_t column = 0;
    uint64_t count = 0;
    double weight = 0.0, weightedLatitude = 0.0, weightedLongitude = 0.0;
    double accuracySum = 0.0;
    uint64_t rssCount = 0;
    double rssSum = 0.0, rssSquares = 0.0;
    uint64_t oldestMs = UINT64_MAX, newestMs = 0;
};

// What is kept of one MAC's observations: cells in (row, column) order.
struct ApSummary {
    uint64_t observations = 0;
    bool overflowing = false;
    std::vector<Cell> cells;

    void add(const Observation& observation);
    void merge(const ApSummary& other);
};

enum class Verdict { Placed, Moved, Moving };

struct LearnedAp {
    Verdict verdict = Verdict::Placed;
    Tiles::AccessPointPosition position;  // meaningless when Moving
    uint64_t used = 0;                    // observations accepted
    double spreadMetres = 0.0;
    bool exponentFitted = false;
};

LearnedAp learn(const Core::MacAddress& mac, const ApSummary& summary);

// A MAC as one number in printed order: 00:11:22:33:44:55 is 0x001122334455 (the
// key of Learner's map, and the mac column of the server's observations table).
uint64_t macKey(const Core::MacAddress& mac);
Core::MacAddress macOfKey(uint64_t key);

// The summaries of many MACs, filled one observation at a time.
class Learner {
  public:
    void add(const Observation& observation);
    void merge(const Learner& other);
    size_t accessPoints() const { return summaries_.size(); }
    uint64_t observations() const { return observations_; }
    // Every MAC's result, in ascending MAC order; Moving ones included.
    std::vector<std::pair<Core::MacAddress, LearnedAp>> learnAll() const;

  private:
    std::unordered_map<uint64_t, ApSummary> summaries_;
    uint64_t observations_ = 0;
};

}  // namespace ZEL::Learn

#include "local/location_determination_private.h"

#include <gtest/gtest.h>

#include "local/location_history.h"
#include "spi/log.h"
#include "support/local_entries.h"
#include "support/log_capture.h"
#include "support/test_platform.h"
#include "tiles/tile_writer.h"

namespace ZEL::Local {
namespace {

using Testing::latitudeAt;
using Testing::longitudeAt;
using Testing::recordAt;
using Testing::testMac;

constexpr uint64_t kT0 = 1'750'000'000'000ull;
constexpr const char* kCategory = "ZEL.API.LocationDeterminationPrivate";

Tiles::AccessPointPosition storedAt(int number, double north, double east, uint32_t quality = 50) {
    return {testMac(number), latitudeAt(north), longitudeAt(east), quality, 0.25};
}

class DeterminationTest : public ::testing::Test {
  protected:
    void SetUp() override { resetLocationHistoriesForTesting(); }
    void TearDown() override { resetLocationHistoriesForTesting(); }

    std::string writeFile(const std::string& name,
                          const std::vector<Tiles::AccessPointPosition>& aps,
                          const std::string& realm = "") {
        Tiles::TileWriteResult result = Tiles::TileWriter::build(aps, realm);
        EXPECT_TRUE(result.ok) << result.error;
        platform_.addFile("/db/" + name, std::move(result.bytes));
        return "/db/" + name;
    }

    // A database of APs 1..5 around the base point and 6..8 all at one spot.
    void useCity() {
        const std::string path =
            writeFile("city.zel", {storedAt(1, 0, 0), storedAt(2, 30, 0), storedAt(3, 0, 30),
                                   storedAt(4, 30, 30), storedAt(5, 15, 15), storedAt(6, 20, 20),
                                   storedAt(7, 20, 20), storedAt(8, 20, 20)});
        use({path});
    }

    void use(const std::vector<std::string>& paths, std::string_view realm = "") {
        determination_.setLocalFilesPath(paths);
        determination_.prepare(realm);
    }

    Core::ScannedAP heard(int number, int16_t rss) const {
        Core::ScannedAP ap;
        ap.mac = testMac(number);
        ap.rss = rss;
        ap.time = Core::TimeStamp::fromMilliseconds(clock_.nowMs());
        return ap;
    }

    Core::ResultCode determineAt(uint64_t timeMs,
                                 std::initializer_list<std::pair<int, int16_t>> aps,
                                 Core::LocationRecord& out) {
        clock_.set(timeMs);
        Core::ApList list;
        for (auto [number, rss] : aps) {
            list.push_back(heard(number, rss));
        }
        return determination_.determine(nullptr, list, out);
    }

    Testing::TestPlatform platform_;
    SPI::ManualClock& clock_ = platform_.manualClock();
    LocationDeterminationPrivate determination_;
};

TEST_F(DeterminationTest, PrepareOpensTheFilesOfTheRealmAndSkipsTheOthers) {
    const std::string plain = writeFile("plain.zel", {storedAt(1, 0, 0), storedAt(2, 10, 0)});
    const std::string city = writeFile("city.zel", {storedAt(1, 0, 0), storedAt(2, 10, 0)}, "city");
    use({plain, "/db/missing.zel", city}, "city");
    EXPECT_EQ(determination_.openReaderCount(), 1u);
    // Each prepare starts over; release closes everything.
    use({plain, plain});
    EXPECT_EQ(determination_.openReaderCount(), 2u);
    determination_.release();
    EXPECT_EQ(determination_.openReaderCount(), 0u);
}

TEST_F(DeterminationTest, LookupAsksReadersInPathOrderAndLogsEveryScanRecord) {
    const std::string first = writeFile("first.zel", {storedAt(1, 0, 0), storedAt(2, 10, 0)});
    const std::string second = writeFile("second.zel", {storedAt(2, 500, 0), storedAt(3, 20, 0)});
    ReaderList readers;
    for (const std::string& path : {first, second}) {
        readers.push_back(Tiles::LocalCompressedFileReader::create());
        ASSERT_TRUE(readers.back()->open(path, ""));
    }
    const Core::ApList scan{heard(2, -60), heard(9, -70), heard(3, -80), heard(2, -65)};
    Testing::LogCapture capture(kCategory);
    const StoredApMap known = lookupStoredAps(readers, scan, SPI::getLogger(kCategory));
    ASSERT_EQ(known.size(), 2u);
    EXPECT_NEAR(known.at(testMac(2)).latitude, latitudeAt(10), 1e-5);  // the first file's
    EXPECT_NEAR(known.at(testMac(3)).latitude, latitudeAt(20), 1e-5);
    EXPECT_EQ(capture.messages().size(), 4u);  // one per scan record, the repeated MAC too
}

TEST_F(DeterminationTest, FirstCallWithoutAKnownApIsRefusedAndLeavesNoHistory) {
    useCity();
    Core::LocationRecord out;
    EXPECT_EQ(determineAt(kT0, {{9, -60}, {10, -70}}, out), Core::ResultCode::kCannotDetermine);
    EXPECT_TRUE(rawHistory().empty());
    EXPECT_TRUE(determination_.trackedAps().empty());
}

TEST_F(DeterminationTest, SplitsTheScanIntoKnownAndUnknownApsInScanOrder) {
    useCity();
    Core::LocationRecord out;
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {9, -50}, {2, -60}, {4, -60}, {10, -50}}, out),
              Core::ResultCode::kOk);
    auto macs = [](const Core::ApList& list) {
        std::vector<Core::MacAddress> result;
        for (const Core::ScannedAP& ap : list) {
            result.push_back(ap.mac);
        }
        return result;
    };
    EXPECT_EQ(macs(out.knownAps), (std::vector{testMac(1), testMac(2), testMac(4)}));
    EXPECT_EQ(macs(out.unknownAps), (std::vector{testMac(9), testMac(10)}));
    EXPECT_NEAR(out.longitude, longitudeAt(10), 1e-5);  // the centroid of the three
    EXPECT_EQ(out.time, Core::TimeStamp::fromMilliseconds(kT0));
    EXPECT_EQ(resultHistory().size(), 1u);
    EXPECT_EQ(determination_.trackedAps().size(), 5u);  // the unknown ones too
}

TEST_F(DeterminationTest, WithoutKnownApsARawEstimateUnder20SecondsIsReturned) {
    useCity();
    Core::LocationRecord first;
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {2, -60}, {4, -60}}, first), Core::ResultCode::kOk);
    Core::LocationRecord out;
    ASSERT_EQ(determineAt(kT0 + 15000, {{9, -60}}, out), Core::ResultCode::kOk);
    EXPECT_EQ(out.latitude, rawHistory()[1].latitude);
    EXPECT_EQ(out.hpe, 150.0);
    EXPECT_EQ(out.time, Core::TimeStamp::fromMilliseconds(kT0 + 15000));
    // The raw record is the history's copy, stamp included.
    EXPECT_EQ(rawHistory()[0].time, Core::TimeStamp::fromMilliseconds(kT0));
}

TEST_F(DeterminationTest, EarlyRefusalOnlyBeyond20000Ms) {
    useCity();
    Core::LocationRecord out;
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {2, -60}, {4, -60}}, out), Core::ResultCode::kOk);
    EXPECT_EQ(determineAt(kT0 + 20001, {{9, -60}}, out), Core::ResultCode::kCannotDetermine);
    EXPECT_EQ(resultHistory().size(), 1u);
}

TEST_F(DeterminationTest, AFailedEstimatePushesAZeroRecordThatLaterCallsSee) {
    useCity();
    Core::LocationRecord out;
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {2, -60}, {4, -60}}, out), Core::ResultCode::kOk);
    // 20000 ms: not refused, but the history position is too old for the estimate.
    Core::LocationRecord failed;
    EXPECT_EQ(determineAt(kT0 + 20000, {{9, -60}}, failed), Core::ResultCode::kCannotDetermine);
    ASSERT_EQ(resultHistory().size(), 2u);
    EXPECT_EQ(resultHistory()[0].latitude, 0.0);
    EXPECT_EQ(resultHistory()[0].time, Core::TimeStamp::fromMilliseconds(kT0 + 20000));
    // The zero record, 1000 ms old, starts smoothing, which with too few samples is raw.
    Core::LocationRecord later;
    EXPECT_EQ(determineAt(kT0 + 21000, {{1, -60}, {2, -60}, {4, -60}}, later),
              Core::ResultCode::kOk);
    EXPECT_EQ(later.latitude, rawHistory()[0].latitude);
    EXPECT_EQ(later.speed, 0.0);
}

// `seeds` raw records at P (20 m north), 1000 ms apart (the oldest `oldestAgeMs` old
// if given), and a newest result `resultAgeMs` old at `resultSpeed`.
class SmoothingTest : public DeterminationTest {
  protected:
    double smoothedLatitude(int seeds, double resultSpeed, uint64_t resultAgeMs,
                            uint64_t oldestAgeMs = 0) {
        useCity();
        const uint64_t now = kT0 + 100000;
        for (int age = seeds; age >= 1; --age) {
            const uint64_t ageMs = age == seeds && oldestAgeMs != 0 ? oldestAgeMs : age * 1000;
            rawHistory().add(recordAt(20, 0, now - ageMs));
        }
        resultHistory().add(recordAt(20, 0, now - resultAgeMs, resultSpeed));
        Core::LocationRecord out;
        EXPECT_EQ(determineAt(now, {{1, -60}, {2, -60}, {4, -60}}, out), Core::ResultCode::kOk);
        raw_ = rawHistory()[0].latitude;
        return out.latitude;
    }
    const double p_ = latitudeAt(20);
    double raw_ = 0.0;
};

// Ten samples weigh a tenth each when the newest result is under 20000 ms old and
// at most 2.22 km/h; otherwise nine take the triangular weights 0.04, 0.08 .. 0.04
// (plus 0.1 for a tenth history record at exactly 20000 ms); too few give the raw one.
TEST_F(SmoothingTest, WeightsFollowTheSpeedAndAgeOfTheNewestResult) {
    struct Row {
        int seeds;
        double resultSpeed;
        uint64_t resultAgeMs;
        double rawWeight, historyWeight;  // of the raw latitude and of P
        uint64_t oldestAgeMs = 0;         // a sample counts while under 10 x 1000 + 20000 ms
    };
    const double standing = 8.0 / 3.6;  // km/h: the fastest that still counts as standing
    for (Row row : {Row{9, 2.2, 1000, 0.1, 0.9}, Row{9, standing, 1000, 0.1, 0.9},
                    Row{8, 2.3, 1000, 0.04, 0.96}, Row{8, 2.2, 1000, 1, 0},
                    Row{9, 2.2, 20000, 0.04, 1.06}, Row{9, 2.2, 20001, 1, 0},
                    Row{9, 2.2, 1000, 0.1, 0.9, 29999}, Row{9, 2.2, 1000, 1, 0, 30000}}) {
        SCOPED_TRACE(::testing::Message() << row.seeds << " seeds, " << row.resultSpeed << " km/h, "
                                          << row.resultAgeMs << " ms, oldest " << row.oldestAgeMs);
        resetLocationHistoriesForTesting();
        const double out =
            smoothedLatitude(row.seeds, row.resultSpeed, row.resultAgeMs, row.oldestAgeMs);
        EXPECT_NEAR(out, row.rawWeight * raw_ + row.historyWeight * p_, 1e-9);
        EXPECT_EQ(out == raw_, row.rawWeight == 1);
    }
}

// Bearing smoothing. APs 6..8 share one spot Q; results 100..400 m away at 170
// degrees from Q make the raw bearing 350.01 (-10 + 360.01). Four warm-up calls
// with alternating RSS make the tracked signals unsteady, so the speed is not 0.
class BearingTest : public DeterminationTest {
  protected:
    double smoothedBearing(const std::vector<double>& newestFirst) {
        useCity();
        Core::LocationRecord ignored;
        for (int call = 0; call < 4; ++call) {
            const int16_t rss = call % 2 == 0 ? -60 : -66;
            determineAt(kT0 + call * 1000, {{6, rss}, {7, rss}, {8, rss}}, ignored);
        }
        resetLocationHistoriesForTesting();
        const uint64_t now = kT0 + 100000;
        const double qNorth = 20.0;
        const double qEast = 20.0;
        // The raw position is Q as stored (rounded by the writer), so aim from there.
        auto reader = Tiles::LocalCompressedFileReader::create();
        EXPECT_TRUE(reader->open("/db/city.zel", ""));
        const Tiles::StoredApData q = reader->lookup(testMac(6)).value();
        for (int i = 4; i >= 1; --i) {
            Core::LocationRecord result = recordAt(qNorth, qEast, now - i * 1000, 10.0);
            Testing::destination(q.latitude, q.longitude, 170.0, 100.0 * i, result.latitude,
                                 result.longitude);
            resultHistory().add(result);
        }
        std::vector<double> bearings(newestFirst);
        for (size_t i = bearings.size(); i >= 1; --i) {
            rawHistory().add(recordAt(qNorth, qEast, now - i * 1000, 10.0, bearings[i - 1]));
        }
        Core::LocationRecord out;
        EXPECT_EQ(determineAt(now, {{6, -60}, {7, -60}, {8, -60}}, out), Core::ResultCode::kOk);
        EXPECT_GT(out.speed, 0.0);
        rawBearing_ = rawHistory()[0].bearing;
        return out.bearing;
    }
    double rawBearing_ = 0.0;
};

struct BearingRow {
    std::vector<double> history;  // newest first
    double smoothed;
};

class BearingRows : public BearingTest, public ::testing::WithParamInterface<BearingRow> {};

// The raw bearing is 350.01; with the history's four, weighed 0.1, 0.22, 0.36, 0.22,
// 0.1 newest first. When at least three of the five lie in the northern half (below
// 90 or above 270), those above 180 count as negative.
TEST_P(BearingRows, BearingsAroundNorthAverageAcrossIt) {
    EXPECT_NEAR(smoothedBearing(GetParam().history), GetParam().smoothed, 0.002);
    EXPECT_NEAR(rawBearing_, 350.01, 0.002);  // the raw record keeps its own bearing
    EXPECT_NEAR(resultHistory()[0].bearing, GetParam().smoothed, 0.002);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BearingRows,
    ::testing::Values(BearingRow{{10, 5, 355, 2}, 2.101},        // -9.99, 10, 5, -5, 2
                      BearingRow{{10, 5, 200, 200}, 311.811},    // three northern: shifted
                      BearingRow{{10, 200, 200, 200}, 173.201},  // two northern: not shifted
                      BearingRow{{90, 270, 90, 270}, 198.801},   // 90 and 270 are not northern
                      BearingRow{{10, 5, 180, 2}, 42.801},       // 180 itself stays positive
                      BearingRow{{10, 0, 5, 355}, 350.01}));     // 0 is no sample: too few

TEST_F(BearingTest, ANegativeWeightedSumGets36001Added) {
    // Kept on purpose: the smoothed bearing is lifted by 360.01, not 360.
    EXPECT_NEAR(smoothedBearing({340, 345, 355, 350}), 360.01 - 12.899, 0.002);  // -12.899
}

TEST_F(DeterminationTest, StandingStillKeepsTheNewestRawBearing) {
    useCity();
    rawHistory().add(recordAt(20, 20, kT0 - 1000, 0.0, 123.0));
    Core::LocationRecord out;
    // A fresh tracked list has steady signals: speed 0.
    ASSERT_EQ(determineAt(kT0, {{6, -60}, {7, -60}, {8, -60}}, out), Core::ResultCode::kOk);
    EXPECT_EQ(out.speed, 0.0);
    EXPECT_EQ(out.bearing, 123.0);
    EXPECT_EQ(rawHistory()[0].bearing, 123.0);
}

}  // namespace
}  // namespace ZEL::Local

#include "local/location_determination_private.h"

#include <gtest/gtest.h>

#include "local/location_history.h"
#include "spi/log.h"
#include "spi/manual_clock.h"
#include "support/hand_built_tile.h"
#include "support/local_entries.h"
#include "support/log_capture.h"
#include "tiles/tile_writer.h"

namespace ZEL::API {
namespace {

using Testing::latitudeAt;
using Testing::longitudeAt;
using Testing::testMac;

constexpr uint64_t kT0 = 1'750'000'000'000ull;
constexpr const char* kCategory = "ZEL.API.LocationDeterminationPrivate";

Tiles::AccessPointPosition storedAt(int number, double north, double east, uint32_t quality = 50) {
    return {testMac(number), latitudeAt(north), longitudeAt(east), quality, 0.25};
}

Core::LocationRecord positionedAt(double north, double east, uint64_t timeMs, double speed = 0.0,
                            double bearing = 0.0) {
    return Testing::recordAt(north, east, timeMs, speed, bearing);
}

class DeterminationTest : public ::testing::Test {
  protected:
    void SetUp() override { Local::resetLocationHistoriesForTesting(); }
    void TearDown() override { Local::resetLocationHistoriesForTesting(); }

    std::string writeFile(const std::string& name, const std::vector<Tiles::AccessPointPosition>& aps,
                          const std::string& realm = "") {
        const std::string path = directory_.path() + "/" + name;
        const Tiles::TileWriteResult result = Tiles::TileWriter::writeFile(path, aps, realm);
        EXPECT_TRUE(result.ok) << result.error;
        return path;
    }

    // A database of APs 1..5 around the base point and 6..8 all at one spot.
    void useCity() {
        const std::string path =
            writeFile("city.zel", {storedAt(1, 0, 0), storedAt(2, 30, 0), storedAt(3, 0, 30),
                                   storedAt(4, 30, 30), storedAt(5, 15, 15), storedAt(6, 20, 20),
                                   storedAt(7, 20, 20), storedAt(8, 20, 20)});
        use({path});
    }

    void use(const std::vector<std::string>& paths, const char* realm = "") {
        std::vector<const char*> list;
        for (const std::string& path : paths) {
            list.push_back(path.c_str());
        }
        list.push_back(nullptr);
        determination_.setLocalFilesPath(list.data());
        determination_.prepare(ZEL_Authentication{"user", realm});
    }

    Core::ScannedAP heard(int number, int16_t rss) const {
        Core::ScannedAP ap;
        ap.mac = testMac(number);
        ap.rss = rss;
        ap.time = Core::TimeStamp::fromMilliseconds(clock_.nowMs());
        return ap;
    }

    int determineAt(uint64_t timeMs, std::initializer_list<std::pair<int, int16_t>> aps,
                    Core::LocationRecord& out) {
        clock_.set(timeMs);
        Core::ApList list;
        for (auto [number, rss] : aps) {
            list.push_back(heard(number, rss));
        }
        return determination_.determine(nullptr, list, out);
    }

    Testing::TempDir directory_;
    SPI::ManualClock clock_{kT0};
    SPI::ScopedClock scopedClock_{clock_};
    Local::LocationDeterminationPrivate determination_;
};

TEST_F(DeterminationTest, PathListFollowsTheCallersNullTerminatedArray) {
    const char* two[] = {"a.zel", "b.zel", nullptr};
    EXPECT_EQ(determination_.setLocalFilesPath(two), 0);
    EXPECT_EQ(determination_.localFilesPath(), (std::vector<std::string>{"a.zel", "b.zel"}));
    const char* none[] = {nullptr, "ignored", nullptr};
    EXPECT_EQ(determination_.setLocalFilesPath(none), 0);
    EXPECT_TRUE(determination_.localFilesPath().empty());
    determination_.setLocalFilesPath(two);
    EXPECT_EQ(determination_.setLocalFilesPath(nullptr), 0);
    EXPECT_TRUE(determination_.localFilesPath().empty());
}

TEST_F(DeterminationTest, PrepareOpensTheFilesOfTheRealmAndSkipsTheOthers) {
    const std::string plain = writeFile("plain.zel", {storedAt(1, 0, 0), storedAt(2, 10, 0)});
    const std::string city = writeFile("city.zel", {storedAt(1, 0, 0), storedAt(2, 10, 0)}, "city");
    const std::string missing = directory_.path() + "/missing.zel";
    use({plain, missing, city}, "city");
    EXPECT_EQ(determination_.openReaderCount(), 1u);
    use({plain, missing, city}, nullptr);  // a null realm is the empty one
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
    Local::ReaderList readers;
    for (const std::string& path : {first, second}) {
        readers.push_back(Tiles::LocalCompressedFileReader::create());
        ASSERT_TRUE(readers.back()->open(path, ""));
    }
    clock_.set(kT0);
    const Core::ApList scan{heard(2, -60), heard(9, -70), heard(3, -80), heard(2, -65)};
    Testing::LogCapture capture(kCategory);
    const Local::StoredApMap known = Local::lookupStoredAps(readers, scan, SPI::getLogger(kCategory));
    ASSERT_EQ(known.size(), 2u);
    EXPECT_NEAR(known.at(testMac(2)).latitude, latitudeAt(10), 1e-5);  // the first file's
    EXPECT_NEAR(known.at(testMac(3)).latitude, latitudeAt(20), 1e-5);
    EXPECT_EQ(known.at(testMac(3)).quality, 50u);
    const auto texts = capture.texts();
    ASSERT_EQ(texts.size(), 4u);  // one per scan record, the repeated MAC too
    EXPECT_EQ(texts[0].rfind("MAC 000000000002 extracted successfully: 47.0000", 0), 0u)
        << texts[0];
    EXPECT_EQ(texts[1], "MAC 000000000009 not found");
    EXPECT_EQ(texts[3].rfind("MAC 000000000002 extracted successfully: ", 0), 0u);

    Local::ReaderList none;
    Testing::LogCapture quiet(kCategory);
    EXPECT_TRUE(Local::lookupStoredAps(none, scan, SPI::getLogger(kCategory)).empty());
    EXPECT_TRUE(quiet.messages().empty());
}

TEST_F(DeterminationTest, FirstCallWithoutAKnownApIsRefusedAndLeavesNoHistory) {
    useCity();
    Core::LocationRecord out;
    EXPECT_EQ(determineAt(kT0, {{9, -60}, {10, -70}}, out), 6);
    EXPECT_TRUE(Local::rawHistory().empty());
    EXPECT_TRUE(Local::resultHistory().empty());
    EXPECT_TRUE(out.knownAps.empty());
    EXPECT_TRUE(determination_.trackedAps().empty());
}

TEST_F(DeterminationTest, SplitsTheScanIntoKnownAndUnknownApsInScanOrder) {
    useCity();
    Core::LocationRecord out;
    Testing::LogCapture capture(kCategory);
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {9, -50}, {2, -60}, {4, -60}, {10, -50}}, out), 0);
    ASSERT_EQ(out.knownAps.size(), 3u);
    EXPECT_EQ(out.knownAps[0].mac, testMac(1));
    EXPECT_EQ(out.knownAps[1].mac, testMac(2));
    EXPECT_EQ(out.knownAps[2].mac, testMac(4));
    ASSERT_EQ(out.unknownAps.size(), 2u);
    EXPECT_EQ(out.unknownAps[0].mac, testMac(9));
    EXPECT_EQ(out.unknownAps[1].mac, testMac(10));
    EXPECT_EQ(capture.count(SPI::LogPriority::kDebug, "unknown AP: 000000000009"), 1u);
    EXPECT_EQ(out.nap, 3);
    // Equal signals: the centroid of (0,0), (30,0) and (30,30) metres.
    EXPECT_NEAR(out.latitude, latitudeAt(20), 1e-5);
    EXPECT_NEAR(out.longitude, longitudeAt(10), 1e-5);
    EXPECT_EQ(out.time, Core::TimeStamp::fromMilliseconds(kT0));
    EXPECT_EQ(Local::rawHistory().size(), 1u);
    EXPECT_EQ(Local::resultHistory().size(), 1u);
    EXPECT_EQ(determination_.trackedAps().size(), 5u);  // the unknown ones too
}

TEST_F(DeterminationTest, WithoutKnownApsARawEstimateUnder20SecondsIsReturned) {
    useCity();
    Core::LocationRecord first;
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {2, -60}, {4, -60}}, first), 0);
    Core::LocationRecord out;
    ASSERT_EQ(determineAt(kT0 + 15000, {{9, -60}}, out), 0);
    EXPECT_EQ(out.latitude, Local::rawHistory()[1].latitude);
    EXPECT_EQ(out.longitude, Local::rawHistory()[1].longitude);
    EXPECT_EQ(out.hpe, 150.0);
    EXPECT_EQ(out.nap, 3);
    EXPECT_EQ(out.time, Core::TimeStamp::fromMilliseconds(kT0 + 15000));
    // The raw record is the history's copy, stamp included.
    EXPECT_EQ(Local::rawHistory()[0].time, Core::TimeStamp::fromMilliseconds(kT0));
}

TEST_F(DeterminationTest, EarlyRefusalOnlyBeyond20000Ms) {
    useCity();
    Core::LocationRecord out;
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {2, -60}, {4, -60}}, out), 0);
    EXPECT_EQ(determineAt(kT0 + 20001, {{9, -60}}, out), 6);
    EXPECT_EQ(Local::rawHistory().size(), 1u);
    EXPECT_EQ(Local::resultHistory().size(), 1u);
}

TEST_F(DeterminationTest, AFailedEstimatePushesAZeroRecordThatLaterCallsSee) {
    useCity();
    Core::LocationRecord out;
    ASSERT_EQ(determineAt(kT0, {{1, -60}, {2, -60}, {4, -60}}, out), 0);
    // 20000 ms: not refused, but the history position is too old for the estimate.
    Core::LocationRecord failed;
    EXPECT_EQ(determineAt(kT0 + 20000, {{9, -60}}, failed), 6);
    ASSERT_EQ(Local::resultHistory().size(), 2u);
    EXPECT_EQ(Local::resultHistory()[0].latitude, 0.0);
    EXPECT_EQ(Local::resultHistory()[0].longitude, 0.0);
    EXPECT_EQ(Local::resultHistory()[0].time, Core::TimeStamp::fromMilliseconds(kT0 + 20000));
    EXPECT_EQ(Local::rawHistory()[0].latitude, 0.0);
    // The zero record is the newest result, 1000 ms old, so smoothing is attempted
    // (and, with too few samples, gives the raw position).
    Core::LocationRecord later;
    EXPECT_EQ(determineAt(kT0 + 21000, {{1, -60}, {2, -60}, {4, -60}}, later), 0);
    EXPECT_EQ(later.latitude, Local::rawHistory()[0].latitude);
    EXPECT_EQ(later.speed, 0.0);
}

// Smoothing with seeded histories: `seeds` raw records at P (20 m north of the base
// point), 1000 ms apart, and a newest result `resultAgeMs` old at `resultSpeed`.
class SmoothingTest : public DeterminationTest {
  protected:
    double smoothedLatitude(int seeds, double resultSpeed, uint64_t resultAgeMs) {
        useCity();
        const uint64_t now = kT0 + 100000;
        for (int age = seeds; age >= 1; --age) {
            Local::rawHistory().add(positionedAt(20, 0, now - age * 1000));
        }
        Local::resultHistory().add(positionedAt(20, 0, now - resultAgeMs, resultSpeed));
        Core::LocationRecord out;
        EXPECT_EQ(determineAt(now, {{1, -60}, {2, -60}, {4, -60}}, out), 0);
        raw_ = Local::rawHistory()[0].latitude;
        return out.latitude;
    }
    const double p_ = latitudeAt(20);
    double raw_ = 0.0;
};

TEST_F(SmoothingTest, AtMost2Point22KmhTenSamplesWeighTenthEach) {
    const double out = smoothedLatitude(9, 2.2, 1000);
    EXPECT_NEAR(out, 0.1 * raw_ + 0.9 * p_, 1e-9);
    EXPECT_GT(std::abs(out - raw_), 1e-6);
}

TEST_F(SmoothingTest, FasterNineSamplesTakeTheTriangularWeights) {
    const double out = smoothedLatitude(8, 2.3, 1000);
    EXPECT_NEAR(out, 0.04 * raw_ + 0.96 * p_, 1e-9);
}

TEST_F(SmoothingTest, TooFewSamplesGiveTheRawPosition) {
    const double out = smoothedLatitude(8, 2.2, 1000);
    EXPECT_EQ(out, raw_);
}

TEST_F(SmoothingTest, ResultExactly20000MsOldTakesNineWeightsAndATenthOfPointOne) {
    // 0.04 for the raw sample, 0.08 .. 0.04 and then 0.1 for the nine history ones.
    const double out = smoothedLatitude(9, 2.2, 20000);
    EXPECT_NEAR(out, 0.04 * raw_ + 1.06 * p_, 1e-9);
}

TEST_F(SmoothingTest, ResultOlderThan20000MsIsNotSmoothedWith) {
    const double out = smoothedLatitude(9, 2.2, 20001);
    EXPECT_EQ(out, raw_);
}

// Bearing smoothing. APs 6..8 share one spot Q; results 100..400 m away at 170
// degrees from Q make the raw bearing 350.01 (-10 + 360.01). Four warm-up calls
// with alternating RSS make the tracked signals unsteady, so the speed is not 0.
class BearingTest : public DeterminationTest {
  protected:
    double smoothedBearing(std::initializer_list<double> newestFirst) {
        useCity();
        Core::LocationRecord ignored;
        for (int call = 0; call < 4; ++call) {
            const int16_t rss = call % 2 == 0 ? -60 : -66;
            determineAt(kT0 + call * 1000, {{6, rss}, {7, rss}, {8, rss}}, ignored);
        }
        Local::resetLocationHistoriesForTesting();
        const uint64_t now = kT0 + 100000;
        const double qNorth = 20.0;
        const double qEast = 20.0;
        // The raw position is Q as stored (rounded by the writer), so aim from there.
        auto reader = Tiles::LocalCompressedFileReader::create();
        EXPECT_TRUE(reader->open(directory_.path() + "/city.zel", ""));
        const Tiles::StoredApData q = reader->lookup(testMac(6)).data;
        for (int i = 4; i >= 1; --i) {
            Core::LocationRecord result = positionedAt(qNorth, qEast, now - i * 1000, 10.0);
            Testing::destination(q.latitude, q.longitude, 170.0, 100.0 * i, result.latitude,
                                 result.longitude);
            Local::resultHistory().add(result);
        }
        std::vector<double> bearings(newestFirst);
        for (size_t i = bearings.size(); i >= 1; --i) {
            Local::rawHistory().add(positionedAt(qNorth, qEast, now - i * 1000, 10.0, bearings[i - 1]));
        }
        Core::LocationRecord out;
        EXPECT_EQ(determineAt(now, {{6, -60}, {7, -60}, {8, -60}}, out), 0);
        EXPECT_GT(out.speed, 0.0);
        rawBearing_ = Local::rawHistory()[0].bearing;
        return out.bearing;
    }
    double rawBearing_ = 0.0;
};

TEST_F(BearingTest, BearingsAroundNorthAverageAcrossIt) {
    // 350.01, 10, 5, 355, 2 -> -9.99, 10, 5, -5, 2: 0.1 x -9.99 + 2.2 + 1.8 - 1.1 + 0.2.
    EXPECT_NEAR(smoothedBearing({10, 5, 355, 2}), 2.101, 0.002);
    EXPECT_NEAR(rawBearing_, 350.01, 0.002);
    EXPECT_NEAR(Local::resultHistory()[0].bearing, 2.101, 0.002);
}

TEST_F(BearingTest, ANegativeWeightedSumGets36001Added) {
    // -9.99, -20, -15, -5, -10 weigh -12.899.
    EXPECT_NEAR(smoothedBearing({340, 345, 355, 350}), 360.01 - 12.899, 0.002);
}

TEST_F(BearingTest, FewerThanFiveSamplesLeaveTheRawBearing) {
    EXPECT_NEAR(smoothedBearing({10, 0, 5, 355}), 350.01, 0.002);
}

TEST_F(DeterminationTest, StandingStillKeepsTheNewestRawBearing) {
    useCity();
    Local::rawHistory().add(positionedAt(20, 20, kT0 - 1000, 0.0, 123.0));
    Core::LocationRecord out;
    // A fresh tracked list has steady signals: speed 0.
    ASSERT_EQ(determineAt(kT0, {{6, -60}, {7, -60}, {8, -60}}, out), 0);
    EXPECT_EQ(out.speed, 0.0);
    EXPECT_EQ(out.bearing, 123.0);
    EXPECT_EQ(Local::rawHistory()[0].bearing, 123.0);
}

}  // namespace
}  // namespace ZEL::API

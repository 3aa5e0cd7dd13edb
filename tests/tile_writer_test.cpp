// Tiles::TileWriter against the reader: round trips through real files, checked
// against a std::map model, in tiny and huge blocks and tiles, and what it refuses.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <unordered_map>

#include "support/hand_built_tile.h"
#include "support/log_capture.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile_format.h"
#include "tiles/tile_writer.h"

namespace ZEL::Tiles {
namespace {

using Testing::macOfKey;

// Access points in `clusters` clusters around 47.5 N 8.5 E, some MACs consecutive.
std::vector<AccessPointPosition> cityOf(size_t count, int clusters, uint32_t seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> spread(-0.002, 0.002), centre(-0.05, 0.05);
    std::vector<std::pair<double, double>> centres;
    for (int i = 0; i < clusters; ++i) {
        centres.emplace_back(47.5 + centre(random), 8.5 + centre(random));
    }
    std::vector<AccessPointPosition> aps;
    for (uint64_t i = 0, key = 0; i < count; ++i) {
        key = i % 3 == 0 ? random() & 0xFFFFFFFFFFFF : key + 1 + random() % 3;
        auto [lat, lon] = centres[random() % centres.size()];
        aps.push_back({macOfKey(key), lat + spread(random), lon + spread(random),
                       static_cast<uint32_t>(10 + random() % 140), (random() % 1000) / 1000.0});
    }
    return aps;
}

class TileWriterTest : public ::testing::Test {
  protected:
    // Writes `aps`, opens the file and checks every model entry and its neighbours.
    void roundTrip(const std::vector<AccessPointPosition>& aps, const std::string& realm,
                   const TileWriterOptions& options) {
        SCOPED_TRACE(realm + " " + std::to_string(options.blockRecords) + "/" +
                     std::to_string(options.tileRecords));
        std::map<uint64_t, AccessPointPosition> model;
        for (const auto& ap : aps) {
            model.emplace(TileFormat::plainKey(ap.mac), ap);  // the first of a MAC wins
        }
        // A file of its own each time: Windows refuses to overwrite the one still mapped.
        std::string path = dir_.path() + "/r" + std::to_string(++files_) + ".zel";
        TileWriteResult result = TileWriter::writeFile(path, aps, realm, options);
        ASSERT_TRUE(result.ok) << result.error;
        EXPECT_EQ(result.accessPoints + result.droppedDuplicates, aps.size());
        ASSERT_TRUE(reader_->open(path, realm));
        double halfUnit = TileFormat::unitDegrees(options.precision) / 2 * (1 + 1e-9);
        for (const auto& [key, ap] : model) {
            std::optional<StoredApData> record = reader_->lookup(ap.mac);
            ASSERT_TRUE(record) << Core::macText(ap.mac);
            EXPECT_LE(std::fabs(record->latitude - ap.latitude), halfUnit);
            EXPECT_LE(std::fabs(record->longitude - ap.longitude), halfUnit);
            EXPECT_EQ(record->quality, std::clamp<uint32_t>(ap.quality, 18, 145));
            double exponent = std::clamp(ap.signalExponent, 1.0 / 6, 0.5);
            EXPECT_LE(std::fabs(record->signalExponent - exponent), options.exponentTolerance);
            for (uint64_t neighbour : {key - 1, key + 1}) {
                if (neighbour <= 0xFFFFFFFFFFFF && !model.count(neighbour)) {
                    EXPECT_FALSE(reader_->lookup(macOfKey(neighbour)));
                }
            }
        }
        for (uint64_t outside : {model.begin()->first - 1, model.rbegin()->first + 1}) {
            EXPECT_FALSE(reader_->lookup(macOfKey(outside)));
        }
    }

    Testing::TempDir dir_;
    int files_ = 0;
    std::unique_ptr<LocalCompressedFileReader> reader_ = LocalCompressedFileReader::create();
};

TEST_F(TileWriterTest, RoundTripsThroughTinyAndNormalBlocksAndTiles) {
    std::vector<AccessPointPosition> aps = cityOf(700, 9, 1);
    for (const std::string realm : {"", "city"}) {
        for (uint32_t block : {1u, 2u, 3u, 16u}) {
            for (uint32_t tile : {4u, 7u, 512u}) {
                roundTrip(aps, realm,
                          {.blockRecords = block, .tileRecords = tile, .cellDegrees = 0.02});
            }
        }
    }
}

// World-wide positions at the finest precision and random MACs in the largest
// blocks, in one cell: the longest records still fit 16-bit block lengths. And codes
// 0 and -1 on both axes, where no base may be 0 and rounding is to the nearest code.
TEST_F(TileWriterTest, RoundTripsWidestRecordsAndPositionsAroundZero) {
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> lat(-90, 90), lon(-180, 180);
    std::vector<AccessPointPosition> aps;
    for (int i = 0; i < 1500; ++i) {
        aps.push_back({macOfKey(random() & 0xFFFFFFFFFFFF), lat(random), lon(random), 145, 0.5});
    }
    const double unit = TileFormat::unitDegrees(5);
    const std::vector<AccessPointPosition> zero = {
        {macOfKey(1), 0.0, 0.0, 18, 0.25},
        {macOfKey(2), 0.51 * unit, -0.49 * unit, 18, 0.25},
        {macOfKey(3), -0.51 * unit, 0.49 * unit, 18, 0.25}};
    for (const std::string realm : {"", "world"}) {
        roundTrip(
            aps, realm,
            {.precision = 7, .blockRecords = 496, .tileRecords = 1 << 20, .cellDegrees = 400});
        roundTrip(zero, realm, {});
    }
}

TEST_F(TileWriterTest, DuplicateMacsAndCollidingKeysAreDroppedWithAWarning) {
    // Two MACs with equal last octets whose hashed keys collide under the bases
    // of one cell: birthday search over the first four octets.
    const int64_t latCode = 3'112'345, lonCode = 556'789;
    std::unordered_map<uint64_t, uint64_t> seen;
    uint64_t first = 0, second = 0;
    for (uint64_t high = 1; second == 0; ++high) {
        uint64_t mac = high << 16 | 0xABCD;
        auto [it, inserted] =
            seen.emplace(TileFormat::hashedKey(macOfKey(mac), latCode, lonCode, "c"), mac);
        if (!inserted) {
            first = it->second;
            second = mac;
        }
    }
    const double unit = TileFormat::unitDegrees(5), lat = latCode * unit, lon = lonCode * unit;
    std::vector<AccessPointPosition> aps = {{macOfKey(first), lat, lon, 30, 0.25},
                                            {macOfKey(second), lat, lon, 40, 0.25},
                                            {macOfKey(7), lat, lon, 50, 0.25},
                                            {macOfKey(7), lat + 1, lon, 60, 0.25}};
    Testing::LogCapture log("ZEL.API.TileWriter");
    TileWriteResult result = TileWriter::build(aps, "c");
    ASSERT_TRUE(result.ok);
    EXPECT_EQ(result.droppedDuplicates, 2u);
    EXPECT_EQ(result.accessPoints, 2u);
    EXPECT_EQ(result.tileOfInput, (std::vector<int32_t>{0, -1, 0, -1}));  // the first one stays
    EXPECT_TRUE(log.contains("dropped 000000000007: given more than once"));
    EXPECT_TRUE(log.contains("dropped " + Core::macText(macOfKey(second)) +
                             ": its key collides with " + Core::macText(macOfKey(first))));
}

TEST_F(TileWriterTest, RefusesWhatCannotMakeAValidFile) {
    AccessPointPosition a{macOfKey(1), 10, 10, 50, 0.25}, b{macOfKey(2), 10, 10, 50, 0.25};
    EXPECT_EQ(TileWriter::build({a}, "").error,
              "a tile file needs at least two distinct access points");
    EXPECT_FALSE(TileWriter::build({a, a}, "").ok);  // the same MAC twice is one access point
    EXPECT_TRUE(TileWriter::build({a, b}, "").ok);
    EXPECT_TRUE(TileWriter::build({a, b}, "far apart", {.cellDegrees = 0.001}).ok);
    for (TileWriterOptions options :
         {TileWriterOptions{.precision = 0}, TileWriterOptions{.precision = 8},
          TileWriterOptions{.blockRecords = 0}, TileWriterOptions{.blockRecords = 497},
          TileWriterOptions{.tileRecords = 3}, TileWriterOptions{.cellDegrees = 0}}) {
        EXPECT_FALSE(TileWriter::build({a, b}, "", options).ok);
    }
    EXPECT_FALSE(TileWriter::writeFile(dir_.path() + "/no/such/dir.zel", {a, b}, "").ok);
    b.latitude = 90.5;
    EXPECT_NE(TileWriter::build({a, b}, "").error.find("000000000002"), std::string::npos);
}

}  // namespace
}  // namespace ZEL::Tiles

// Tiles::TileWriter against the reader: round trips through real files, checked
// against a std::map model, and the layout rules every written tile obeys.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <set>
#include <unordered_map>

#include "support/hand_built_tile.h"
#include "support/log_capture.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile.h"
#include "tiles/tile_directory.h"
#include "tiles/tile_format.h"
#include "tiles/tile_writer.h"

namespace ZEL::API {
namespace {

Core::MacAddress macOfKey(uint64_t key) {
    Core::MacAddress mac{};
    for (int i = 0; i < 6; ++i) {
        mac[i] = static_cast<uint8_t>(key >> (8 * i));
    }
    return mac;
}

// Access points in `clusters` clusters around 47.5 N 8.5 E, some MACs consecutive.
std::vector<Tiles::AccessPointPosition> cityOf(size_t count, int clusters, uint32_t seed) {
    std::mt19937_64 random(seed);
    std::uniform_real_distribution<double> spread(-0.002, 0.002), centre(-0.05, 0.05);
    std::vector<std::pair<double, double>> centres;
    for (int i = 0; i < clusters; ++i) {
        centres.emplace_back(47.5 + centre(random), 8.5 + centre(random));
    }
    std::vector<Tiles::AccessPointPosition> aps;
    uint64_t key = 0;
    for (size_t i = 0; i < count; ++i) {
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
    void roundTrip(const std::vector<Tiles::AccessPointPosition>& aps, const std::string& realm,
                   const Tiles::TileWriterOptions& options) {
        SCOPED_TRACE("realm '" + realm + "' block " + std::to_string(options.blockRecords) +
                     " tile " + std::to_string(options.tileRecords));
        std::map<uint64_t, Tiles::AccessPointPosition> model;
        for (const auto& ap : aps) {
            model.emplace(Tiles::TileFormat::plainKey(ap.mac), ap);  // the first of a MAC wins
        }
        std::string path = dir_.path() + "/round.zel";
        Tiles::TileWriteResult result = Tiles::TileWriter::writeFile(path, aps, realm, options);
        ASSERT_TRUE(result.ok) << result.error;
        EXPECT_EQ(result.accessPoints + result.droppedDuplicates, aps.size());
        ASSERT_TRUE(reader_->open(path, realm));
        double halfUnit = Tiles::TileFormat::unitDegrees(options.precision) / 2 * (1 + 1e-9);
        for (const auto& [key, ap] : model) {
            std::optional<Tiles::StoredApData> record = reader_->lookup(ap.mac);
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
    std::unique_ptr<Tiles::LocalCompressedFileReader> reader_ =
        Tiles::LocalCompressedFileReader::create();
};

TEST_F(TileWriterTest, RoundTripsThroughTinyAndNormalBlocksAndTiles) {
    std::vector<Tiles::AccessPointPosition> aps = cityOf(700, 9, 1);
    for (const std::string realm : {"", "city"}) {
        for (uint32_t block : {1u, 2u, 3u, 16u}) {
            for (uint32_t tile : {4u, 7u, 512u}) {
                Tiles::TileWriterOptions options;
                options.blockRecords = block;
                options.tileRecords = tile;
                options.cellDegrees = 0.02;
                roundTrip(aps, realm, options);
            }
        }
    }
}

TEST_F(TileWriterTest, WidestRecordsStillFitSixteenBitBlockLengths) {
    // World-wide positions at the finest precision and random MACs in the
    // largest blocks: the longest records the format can hold.
    std::mt19937_64 random(5);
    std::vector<Tiles::AccessPointPosition> aps;
    for (int i = 0; i < 1500; ++i) {
        aps.push_back({macOfKey(random() & 0xFFFFFFFFFFFF),
                       std::uniform_real_distribution<double>(-90, 90)(random),
                       std::uniform_real_distribution<double>(-180, 180)(random), 145, 0.5});
    }
    Tiles::TileWriterOptions options;
    options.precision = 7;
    options.blockRecords = 496;
    options.tileRecords = 1 << 20;
    options.cellDegrees = 400;  // one cell for the hashed form too
    roundTrip(aps, "", options);
    roundTrip(aps, "world", options);
}

TEST_F(TileWriterTest, PositionsRoundToTheNearestCodeAroundZeroBases) {
    double unit = Tiles::TileFormat::unitDegrees(5);
    // Codes 0 and -1 on both axes: no base may be 0, and rounding is to nearest.
    std::vector<Tiles::AccessPointPosition> aps = {
        {macOfKey(1), 0.0, 0.0, 18, 0.25},
        {macOfKey(2), 0.51 * unit, -0.49 * unit, 18, 0.25},
        {macOfKey(3), -0.51 * unit, 0.49 * unit, 18, 0.25},
    };
    for (const std::string realm : {"", "equator"}) {
        std::string path = dir_.path() + "/zero.zel";
        ASSERT_TRUE(Tiles::TileWriter::writeFile(path, aps, realm).ok);
        ASSERT_TRUE(reader_->open(path, realm));
        EXPECT_EQ(reader_->lookup(macOfKey(1)).value().latitude, 0.0);
        EXPECT_EQ(reader_->lookup(macOfKey(1)).value().longitude, 0.0);
        EXPECT_EQ(reader_->lookup(macOfKey(2)).value().latitude, unit);
        EXPECT_EQ(reader_->lookup(macOfKey(2)).value().longitude, 0.0);
        EXPECT_EQ(reader_->lookup(macOfKey(3)).value().latitude, -unit);
        EXPECT_EQ(reader_->lookup(macOfKey(3)).value().longitude, 0.0);
    }
}

TEST_F(TileWriterTest, EveryTileHasTwoIndexEntriesItsGreatestKeyLastAndTightWidths) {
    std::vector<Tiles::AccessPointPosition> aps = cityOf(300, 4, 3);
    for (auto& ap : aps) {
        ap.quality = 20;  // code 2: two bits
        ap.signalExponent = 1.0 / 6;
    }
    for (const std::string realm : {"", "city"}) {
        Tiles::TileWriterOptions options;
        options.tileRecords = 40;
        options.blockRecords = 5;
        Tiles::TileWriteResult result = Tiles::TileWriter::build(aps, realm, options);
        ASSERT_TRUE(result.ok);
        EXPECT_EQ(result.fileBytes, result.bytes.size());
        auto spans = Tiles::readTileDirectory(result.bytes.data(), result.bytes.size(), realm);
        ASSERT_TRUE(spans);
        EXPECT_EQ(spans->size(), result.tiles);
        Tiles::BitReader in(result.bytes.data(), static_cast<uint32_t>(result.bytes.size()));
        size_t records = 0;
        for (uint32_t i = 0; i < spans->size(); ++i) {
            Tiles::Tile tile;
            ASSERT_TRUE(tile.parse((*spans)[i].start, realm, &in, i));
            EXPECT_GE(tile.indexCount(), 2u);
            EXPECT_LE(tile.recordCount(), 40u);
            EXPECT_EQ(tile.qualityBits(), 2u);
            EXPECT_EQ(tile.exponentBits(), 1u);
            uint64_t greatest = 0;
            EXPECT_EQ(tile.forEachRecord(
                          [&](uint64_t key, const Tiles::StoredApData&) { greatest = key; }),
                      tile.recordCount());
            EXPECT_EQ(tile.lastKey(), greatest);
            EXPECT_LT(tile.latBits(), 12u);  // a few km at 1.7 m per unit
            records += tile.recordCount();
        }
        EXPECT_EQ(records, aps.size());
        EXPECT_EQ(result.accessPoints, aps.size());
    }
}

// A MAC absent from a hashed file costs one key per cell: a city smaller than a
// cell must make one cell even where it straddles a multiple of the cell size.
TEST_F(TileWriterTest, HashedCityAcrossAGridLineStaysOneCell) {
    std::vector<Tiles::AccessPointPosition> aps = cityOf(3000, 12, 9);
    for (auto& ap : aps) {  // around 46.0 N 9.0 E, both multiples of half a degree
        ap.latitude -= 1.5;
        ap.longitude += 0.5;
    }
    auto cellsOf = [&](const Tiles::TileWriterOptions& options) {
        Tiles::TileWriteResult result = Tiles::TileWriter::build(aps, "city", options);
        EXPECT_TRUE(result.ok) << result.error;
        auto spans = Tiles::readTileDirectory(result.bytes.data(), result.bytes.size(), "city");
        EXPECT_TRUE(spans.has_value());
        Tiles::BitReader in(result.bytes.data(), static_cast<uint32_t>(result.bytes.size()));
        std::set<std::pair<int32_t, int32_t>> bases;
        for (uint32_t i = 0; spans && i < spans->size(); ++i) {
            Tiles::Tile tile;
            EXPECT_TRUE(tile.parse((*spans)[i].start, "city", &in, i));
            bases.emplace(tile.latBase(), tile.lonBase());
        }
        return std::pair(bases.size(), spans ? spans->size() : 0);
    };
    auto [cells, tiles] = cellsOf({});
    EXPECT_EQ(cells, 1u);
    EXPECT_GT(tiles, 1u);
    EXPECT_GT(cellsOf({.cellDegrees = 0.02}).first, 4u);
}

TEST_F(TileWriterTest, DuplicateMacsAndCollidingKeysAreDroppedWithAWarning) {
    // Two MACs with equal last octets whose hashed keys collide under the bases
    // of one cell: birthday search over the first four octets.
    double unit = Tiles::TileFormat::unitDegrees(5);
    int64_t latCode = 3'112'345, lonCode = 556'789;
    std::unordered_map<uint64_t, uint64_t> seen;
    uint64_t first = 0, second = 0;
    for (uint64_t high = 1; second == 0; ++high) {
        uint64_t key =
            Tiles::TileFormat::hashedKey(macOfKey(high << 16 | 0xABCD), latCode, lonCode, "c");
        auto [it, inserted] = seen.emplace(key, high << 16 | 0xABCD);
        if (!inserted) {
            first = it->second;
            second = high << 16 | 0xABCD;
        }
    }
    double lat = latCode * unit, lon = lonCode * unit;
    std::vector<Tiles::AccessPointPosition> aps = {{macOfKey(first), lat, lon, 30, 0.25},
                                                   {macOfKey(second), lat, lon, 40, 0.25},
                                                   {macOfKey(7), lat, lon, 50, 0.25},
                                                   {macOfKey(7), lat + 1, lon, 60, 0.25}};
    Testing::LogCapture log("ZEL.API.TileWriter");
    std::string path = dir_.path() + "/dup.zel";
    Tiles::TileWriteResult result = Tiles::TileWriter::writeFile(path, aps, "c");
    ASSERT_TRUE(result.ok);
    EXPECT_EQ(result.droppedDuplicates, 2u);
    EXPECT_EQ(result.accessPoints, 2u);
    EXPECT_EQ(result.tileOfInput, (std::vector<int32_t>{0, -1, 0, -1}));
    EXPECT_TRUE(log.contains("dropped 000000000007: given more than once"));
    EXPECT_TRUE(log.contains("dropped " + Core::macText(macOfKey(second)) +
                             ": its key collides with " + Core::macText(macOfKey(first))));
    ASSERT_TRUE(reader_->open(path, "c"));
    EXPECT_EQ(reader_->lookup(macOfKey(7)).value().quality, 50u);
    EXPECT_EQ(reader_->lookup(macOfKey(first)).value().quality, 30u);
    // The colliding MAC shares the stored key: it reads the survivor's record.
    EXPECT_EQ(reader_->lookup(macOfKey(second)).value().quality, 30u);
}

TEST_F(TileWriterTest, RefusesWhatCannotMakeAValidFile) {
    std::vector<Tiles::AccessPointPosition> one = {{macOfKey(1), 10, 10, 50, 0.25}};
    EXPECT_EQ(Tiles::TileWriter::build(one, "").error,
              "a tile file needs at least two distinct access points");
    one.push_back(one[0]);  // the same MAC twice is still one access point
    EXPECT_FALSE(Tiles::TileWriter::build(one, "").ok);
    std::vector<Tiles::AccessPointPosition> two = {{macOfKey(1), 10, 10, 50, 0.25},
                                                   {macOfKey(2), 10, 10, 50, 0.25}};
    EXPECT_TRUE(Tiles::TileWriter::build(two, "").ok);
    EXPECT_TRUE(Tiles::TileWriter::build(two, "far apart", {.cellDegrees = 0.001}).ok);
    two[1].latitude = 90.5;
    Tiles::TileWriteResult bad = Tiles::TileWriter::build(two, "");
    EXPECT_FALSE(bad.ok);
    EXPECT_NE(bad.error.find("000000000002"), std::string::npos);
    two[1].latitude = 10;
    for (Tiles::TileWriterOptions options :
         {Tiles::TileWriterOptions{.precision = 0}, Tiles::TileWriterOptions{.precision = 8},
          Tiles::TileWriterOptions{.blockRecords = 0},
          Tiles::TileWriterOptions{.blockRecords = 497}, Tiles::TileWriterOptions{.tileRecords = 3},
          Tiles::TileWriterOptions{.cellDegrees = 0}}) {
        EXPECT_FALSE(Tiles::TileWriter::build(two, "", options).ok);
    }
    EXPECT_FALSE(Tiles::TileWriter::writeFile(dir_.path() + "/no/such/dir.zel", two, "").ok);
}

}  // namespace
}  // namespace ZEL::API

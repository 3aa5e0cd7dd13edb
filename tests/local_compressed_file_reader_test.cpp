// The tile reader on hand-built files, including layouts the writer never makes.
#include <gtest/gtest.h>

#include <unistd.h>  // truncate

#include <cmath>
#include <functional>
#include <optional>

#include "support/hand_built_tile.h"
#include "support/log_capture.h"
#include "support/test_platform.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile.h"
#include "tiles/tile_format.h"

namespace ZEL::Tiles {
namespace {

using Testing::encodeHandTile;
using Testing::handFile;
using Testing::HandTile;
using Testing::macOfKey;

const char* const kCategory = "ZEL.API.LocalCompressedFileReader";
const double kUnit = std::ldexp(1.0, -16);  // one position unit at precision 5

// Keys 0x1000, 0x1005, 0x1010 in block 0 and 0x2000 alone in block 1.
HandTile sampleTile() {
    HandTile tile;
    tile.blocks = {{0x1000, {{0, 1, 2, 0, 0}, {5, 100, 200, 3, 15}, {0xB, 4095, 4095, 15, 7}}},
                   {0x2000, {{0, 7, 8, 9, 10}}}};
    return tile;
}

std::vector<uint8_t> fileOf(const HandTile& tile) {
    return handFile({encodeHandTile(tile)}, "");
}

class ReaderTest : public ::testing::Test {
  protected:
    bool openBytes(const std::vector<uint8_t>& bytes, const std::string& realm = "") {
        platform_.addFile("tiles.zel", bytes);
        return reader_->open("tiles.zel", realm);
    }
    std::optional<StoredApData> lookupKey(uint64_t key) { return reader_->lookup(macOfKey(key)); }
    bool found(uint64_t key) { return lookupKey(key).has_value(); }
    Testing::TestPlatform platform_;  // mappings end at an unreadable page
    std::unique_ptr<LocalCompressedFileReader> reader_ = LocalCompressedFileReader::create();
};

TEST_F(ReaderTest, BrokenFilesAreRefusedWithTheirMessage) {
    const std::vector<uint8_t> valid = handFile({encodeHandTile(sampleTile())}, "city");
    // Magic and digest alone (18 bytes) leave no room for a tile count of 0.
    std::vector<uint8_t> eighteen = {'Z', 'E', 'L', '2'};
    const auto digest = TileFormat::realmDigest("");
    eighteen.resize(2);
    eighteen.insert(eighteen.end(), digest.begin(), digest.end());
    std::vector<uint8_t> manyTiles = fileOf(sampleTile()), twoTiles = manyTiles;
    manyTiles[manyTiles.size() - 18] = 0xFF;  // the directory outruns the file
    twoTiles[twoTiles.size() - 18] = 2;       // tile 1 would start inside the directory
    struct Row {
        std::vector<uint8_t> bytes;
        const char* realm;
        const char* message;
    };
    std::vector<Row> rows = {
        {valid, "town", "Compressed file is broken"},
        {eighteen, "", "Compressed file is broken"},
        {{'Z', 'E', 'L', '2', 0}, "", "Compressed file is broken"},
        {{}, "", "Couldn't map file (0)"},
        {manyTiles, "", "Compressed file is broken"},
        {twoTiles, "", "Compressed file is broken"},
    };
    // Each invalid header field of tile 1 names it; the valid tile 0 isn't usable either.
    const std::function<void(HandTile&)> breakers[] = {
        [](HandTile& t) { t.precision = 0; },    [](HandTile& t) { t.latBase = 0; },
        [](HandTile& t) { t.lonBase = 0; },      [](HandTile& t) { t.latBits = 0; },
        [](HandTile& t) { t.lonBits = 0; },      [](HandTile& t) { t.qualityBits = 0; },
        [](HandTile& t) { t.exponentBits = 0; },
    };
    for (const auto& breaker : breakers) {
        HandTile bad = sampleTile();
        breaker(bad);
        rows.push_back({handFile({encodeHandTile(sampleTile()), encodeHandTile(bad)}, ""), "",
                        "invalid tile 1"});
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        ASSERT_TRUE(openBytes(valid, "city"));
        Testing::LogCapture log(kCategory);
        EXPECT_FALSE(openBytes(rows[i].bytes, rows[i].realm)) << "row " << i;
        EXPECT_EQ(log.count(SPI::LogPriority::kError, rows[i].message), 1u) << "row " << i;
        EXPECT_FALSE(found(0x1000)) << "row " << i;
    }
    // A truncation anywhere moves the digest: every prefix is refused.
    for (size_t size = 1; size < valid.size(); size += 3) {
        EXPECT_FALSE(openBytes({valid.begin(), valid.begin() + size}, "city")) << size;
    }
}

TEST_F(ReaderTest, MissingFileAndOversizedFileFailWithTheirMessages) {
    Testing::LogCapture log(kCategory);
    EXPECT_FALSE(reader_->open("missing.zel", ""));
    EXPECT_TRUE(log.contains("Couldn't open missing.zel"));
    // Bit positions are 32-bit: a file of 512 MiB can't be addressed (a sparse file
    // on disk, which costs nothing).
    SPI::ScopedPlatform disk(SPI::systemPlatform());
    Testing::TempDir dir;
    std::string huge = dir.write("huge.zel", {'Z', 'E', 'L', '2'});
    ASSERT_EQ(truncate(huge.c_str(), TileFormat::kMaxFileBytes + 1), 0);
    EXPECT_FALSE(reader_->open(huge, ""));
    EXPECT_TRUE(log.contains(huge + " is too large for a tile file (536870912 bytes, at most "
                                    "536870911)"));
}

// Codes of all zeros and all ones decode exactly; the exponent's all-ones code is 1/2.
TEST_F(ReaderTest, ExtremeCodesDecodeExactly) {
    ASSERT_TRUE(openBytes(fileOf(sampleTile())));
    StoredApData zeros = lookupKey(0x1000).value(), ones = lookupKey(0x1010).value();
    EXPECT_EQ(zeros.latitude, 3'000'001 * kUnit);
    EXPECT_EQ(zeros.longitude, 500'002 * kUnit);
    EXPECT_EQ(zeros.quality, 18u);
    EXPECT_EQ(zeros.signalExponent, 1.0 / 6);
    EXPECT_EQ(ones.latitude, 3'004'095 * kUnit);
    EXPECT_EQ(ones.longitude, 504'095 * kUnit);
    EXPECT_EQ(ones.quality, 33u);
    EXPECT_DOUBLE_EQ(ones.signalExponent, 7 / 45.0 + 1.0 / 6);
    EXPECT_DOUBLE_EQ(lookupKey(0x1005).value().signalExponent, 0.5);
}

// Whether the file's single tile holds `key`, by the tile's own search, which must
// agree with the reader's answer.
bool tileHolds(const std::vector<uint8_t>& file, uint64_t key, bool readerFound) {
    BitReader bits(file.data(), static_cast<uint32_t>(file.size()));
    Tile tile;
    StoredApData data;
    EXPECT_TRUE(tile.parse(4, &bits, 0));
    bool held = tile.findKey(key, data);
    EXPECT_EQ(held, readerFound) << std::hex << key;
    return held;
}

// Both searches find exactly the stored keys, also past the last record, where the
// file's directory follows; a walk over the records visits each once.
TEST_F(ReaderTest, SearchesFindExactlyTheStoredKeysAndTheWalkEveryRecord) {
    const std::vector<uint8_t> file = fileOf(sampleTile());
    ASSERT_TRUE(openBytes(file));
    for (uint64_t key = 0xFFF; key < 0x2400; ++key) {
        const bool stored = key == 0x1000 || key == 0x1005 || key == 0x1010 || key == 0x2000;
        ASSERT_EQ(tileHolds(file, key, found(key)), stored) << std::hex << key;
    }
    BitReader bits(file.data(), static_cast<uint32_t>(file.size()));
    Tile tile;
    ASSERT_TRUE(tile.parse(4, &bits, 0));
    EXPECT_EQ(tile.forEachRecord([](uint64_t, const StoredApData&) {}), 4u);
}

TEST_F(ReaderTest, OddDeltasWithinABlock) {
    HandTile tile = sampleTile();
    tile.blocks[0].records[0].keyDelta = 0x1002;  // a first non-zero delta is an absolute key
    ASSERT_TRUE(openBytes(fileOf(tile)));
    EXPECT_FALSE(tileHolds(fileOf(tile), 0x1000, found(0x1000)));
    EXPECT_TRUE(tileHolds(fileOf(tile), 0x1002, found(0x1002)));
    EXPECT_TRUE(tileHolds(fileOf(tile), 0x1007, found(0x1007)));
    tile = sampleTile();
    tile.blocks[0].records[1].keyDelta = 0;  // a second "block start" ends the block's search
    ASSERT_TRUE(openBytes(fileOf(tile)));
    EXPECT_TRUE(tileHolds(fileOf(tile), 0x1000, found(0x1000)));
    EXPECT_FALSE(tileHolds(fileOf(tile), 0x1010, found(0x1010)));
    EXPECT_TRUE(tileHolds(fileOf(tile), 0x2000, found(0x2000)));  // block 1 is intact
}

// With one index entry the last key is read two bytes before the index: from
// the two count bytes (3, then 1) and the low four bytes of the first key.
TEST_F(ReaderTest, IndexCountOneTakesTheLastKeyFromBeforeTheIndex) {
    HandTile tile;
    tile.blocks = {{0x1000, {{0, 1, 1, 1, 1}, {5, 2, 2, 2, 2}, {0x10000000, 3, 3, 3, 3}}}};
    ASSERT_TRUE(openBytes(fileOf(tile)));
    EXPECT_TRUE(found(0x1000));
    EXPECT_TRUE(found(0x1005));
    EXPECT_FALSE(found(0x10001005));             // stored, but above the last key 0x10000103
    tile.blocks[0].records[2].keyDelta = 0x100;  // 0x1105, below 0x10000103
    ASSERT_TRUE(openBytes(fileOf(tile)));
    EXPECT_TRUE(found(0x1105));
}

// With no index entries the records start two bytes before the index: at the
// count bytes 1 and 0. The first "record" is key delta 1 (an absolute key 1)
// whose fields come from the zero count byte and the zero first index key.
TEST_F(ReaderTest, IndexCountZeroDecodesFromTheCountBytes) {
    HandTile tile;
    tile.blocks = {{0, {{0, 5, 5, 5, 5}}}};
    tile.recordCount = 1;
    tile.indexCount = 0;
    ASSERT_TRUE(openBytes(fileOf(tile)));
    std::optional<StoredApData> record = lookupKey(1);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->latitude, 3'000'000 * kUnit);
    EXPECT_EQ(record->longitude, 500'000 * kUnit);
    EXPECT_EQ(record->quality, 18u);
    EXPECT_FALSE(found(2));
}

TEST_F(ReaderTest, LookupIsEmptyUnlessOpenAndReopeningWorks) {
    EXPECT_FALSE(found(0x1000));
    std::vector<uint8_t> smallest = handFile({}, "");
    ASSERT_EQ(smallest.size(), TileFormat::kSmallestFileBytes);
    EXPECT_TRUE(openBytes(smallest));
    EXPECT_FALSE(found(0x1000));
    ASSERT_TRUE(openBytes(fileOf(sampleTile())));
    EXPECT_TRUE(found(0x1000));
    EXPECT_FALSE(reader_->lookup(Core::MacAddress{}));  // all zero: not stored, not found
    reader_->close();
    reader_->close();  // twice is harmless
    EXPECT_FALSE(found(0x1000));
    ASSERT_TRUE(reader_->open("tiles.zel", ""));
    EXPECT_TRUE(found(0x2000));
}

}  // namespace
}  // namespace ZEL::Tiles

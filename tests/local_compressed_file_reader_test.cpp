// The tile reader on hand-built files, including layouts the writer never makes.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <optional>
#include <random>

#include "support/hand_built_tile.h"
#include "support/log_capture.h"
#include "support/test_platform.h"
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile_format.h"

namespace ZEL::Tiles {
namespace {

using Testing::encodeHandTile;
using Testing::HandBlock;
using Testing::handFile;
using Testing::HandRecord;
using Testing::HandTile;

const char* const kCategory = "ZEL.API.LocalCompressedFileReader";

Core::MacAddress macOfKey(uint64_t key) {
    Core::MacAddress mac{};
    for (int i = 0; i < 6; ++i) {
        mac[i] = static_cast<uint8_t>(key >> (8 * i));
    }
    return mac;
}

// Keys 0x1000, 0x1005, 0x1010 in block 0 and 0x2000 alone in block 1.
HandTile sampleTile() {
    HandTile tile;
    tile.blocks = {{0x1000, {{0, 1, 2, 0, 0}, {5, 100, 200, 3, 15}, {0xB, 4095, 4095, 15, 7}}},
                   {0x2000, {{0, 7, 8, 9, 10}}}};
    return tile;
}

class ReaderTest : public ::testing::Test {
  protected:
    // Opens `bytes` as a file; returns what open returned.
    bool openBytes(const std::vector<uint8_t>& bytes, const std::string& realm = "") {
        platform_.addFile(path_, bytes);
        return reader_->open(path_, realm);
    }
    bool found(uint64_t key) { return lookupKey(key).has_value(); }
    std::optional<Tiles::StoredApData> lookupKey(uint64_t key) {
        return reader_->lookup(macOfKey(key));
    }

    Testing::TestPlatform platform_;  // mappings end at an unreadable page
    std::string path_ = "tiles.zel";
    std::unique_ptr<Tiles::LocalCompressedFileReader> reader_ =
        Tiles::LocalCompressedFileReader::create();
};

TEST_F(ReaderTest, SmallestFileOpensAndHoldsNothing) {
    std::vector<uint8_t> bytes = handFile({}, "");
    ASSERT_EQ(bytes.size(), Tiles::TileFormat::kSmallestFileBytes);
    EXPECT_TRUE(openBytes(bytes));
    EXPECT_FALSE(found(0x1000));
}

TEST_F(ReaderTest, ShortFilesAndWrongRealmsAreBroken) {
    std::vector<uint8_t> valid = handFile({encodeHandTile(sampleTile())}, "city");
    {
        Testing::LogCapture log(kCategory);
        EXPECT_FALSE(openBytes(valid, "town"));
        EXPECT_EQ(log.count(SPI::LogPriority::kError, "Compressed file is broken"), 1u);
        EXPECT_FALSE(found(0x1000));
    }
    // Magic and digest alone (18 bytes) leave no room for a tile count of 0.
    std::vector<uint8_t> eighteen = {'Z', 'E', 'L', '2'};
    auto digest = Tiles::TileFormat::realmDigest("");
    eighteen.resize(2);
    eighteen.insert(eighteen.end(), digest.begin(), digest.end());
    for (const auto& bytes : {eighteen, std::vector<uint8_t>{'Z', 'E', 'L', '2', 0}}) {
        Testing::LogCapture log(kCategory);
        EXPECT_FALSE(openBytes(bytes));
        EXPECT_EQ(log.count(SPI::LogPriority::kError, "Compressed file is broken"), 1u);
    }
    // A truncation anywhere moves the digest: every prefix is refused.
    for (size_t size = 1; size < valid.size(); size += 3) {
        EXPECT_FALSE(openBytes({valid.begin(), valid.begin() + size}, "city")) << size;
    }
    Testing::LogCapture log(kCategory);
    EXPECT_FALSE(openBytes({}));
    EXPECT_TRUE(log.contains("Couldn't map file (0)"));
}

TEST_F(ReaderTest, InvalidHeaderFieldsNameTheTileAndBreakTheFile) {
    std::vector<std::function<void(HandTile&)>> breakers = {
        [](HandTile& t) { t.precision = 0; },    [](HandTile& t) { t.latBase = 0; },
        [](HandTile& t) { t.lonBase = 0; },      [](HandTile& t) { t.latBits = 0; },
        [](HandTile& t) { t.lonBits = 0; },      [](HandTile& t) { t.qualityBits = 0; },
        [](HandTile& t) { t.exponentBits = 0; },
    };
    for (size_t i = 0; i < breakers.size(); ++i) {
        HandTile bad = sampleTile();
        breakers[i](bad);
        Testing::LogCapture log(kCategory);
        EXPECT_FALSE(openBytes(handFile({encodeHandTile(sampleTile()), encodeHandTile(bad)}, "")))
            << "breaker " << i;
        EXPECT_EQ(log.count(SPI::LogPriority::kError, "invalid tile 1"), 1u) << "breaker " << i;
        EXPECT_EQ(log.count(SPI::LogPriority::kError, "Compressed file is broken"), 1u);
        EXPECT_FALSE(found(0x1000));  // the valid tile 0 isn't usable either
    }
}

TEST_F(ReaderTest, DirectoryThatDoesNotFitIsBroken) {
    std::vector<uint8_t> bytes = handFile({encodeHandTile(sampleTile())}, "");
    std::vector<uint8_t> manyTiles = bytes;
    manyTiles[manyTiles.size() - 18] = 0xFF;  // N = 0x00FF: the directory outruns the file
    EXPECT_FALSE(openBytes(manyTiles));
    std::vector<uint8_t> twoTiles = handFile({encodeHandTile(sampleTile())}, "");
    twoTiles[twoTiles.size() - 18] = 2;  // tile 1 would start inside the directory
    EXPECT_FALSE(openBytes(twoTiles));
    EXPECT_TRUE(openBytes(bytes));
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
    ASSERT_EQ(truncate(huge.c_str(), Tiles::TileFormat::kMaxFileBytes + 1), 0);
    EXPECT_FALSE(reader_->open(huge, ""));
    EXPECT_TRUE(log.contains(huge + " is too large for a tile file (536870912 bytes, at most "
                                    "536870911)"));
}

TEST_F(ReaderTest, RecordValuesDecodeExactly) {
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(sampleTile())}, "")));
    double unit = std::ldexp(1.0, -16);
    Tiles::StoredApData first = lookupKey(0x1000).value();
    EXPECT_EQ(first.latitude, (1 + 3'000'000) * unit);
    EXPECT_EQ(first.longitude, (2 + 500'000) * unit);
    EXPECT_EQ(first.quality, 18u);               // code 0
    EXPECT_EQ(first.signalExponent, 1.0 / 6.0);  // code 0
    Tiles::StoredApData second = lookupKey(0x1005).value();
    EXPECT_EQ(second.quality, 21u);
    EXPECT_DOUBLE_EQ(second.signalExponent, 0.5);  // all four bits set
    Tiles::StoredApData third = lookupKey(0x1010).value();
    EXPECT_EQ(third.latitude, (4095 + 3'000'000) * unit);
    EXPECT_DOUBLE_EQ(third.signalExponent, 7 / 45.0 + 1 / 6.0);
    EXPECT_EQ(lookupKey(0x2000).value().quality, 27u);
}

TEST_F(ReaderTest, OnlyStoredKeysInsideTheRangeAreFound) {
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(sampleTile())}, "")));
    for (uint64_t key : std::initializer_list<uint64_t>{0x1000, 0x1005, 0x1010, 0x2000}) {
        EXPECT_TRUE(found(key)) << std::hex << key;
    }
    // Between stored keys, between blocks, below the first and above the last.
    for (uint64_t key :
         std::initializer_list<uint64_t>{0x1001, 0x1004, 0x1006, 0x1011, 0x1FFF, 0x0FFF, 0x0,
                                         0x2001, uint64_t{0xFFFFFFFFFFFF}}) {
        EXPECT_FALSE(found(key)) << std::hex << key;
    }
}

TEST_F(ReaderTest, FirstRecordWithNonZeroDeltaCarriesAnAbsoluteKey) {
    HandTile tile = sampleTile();
    tile.blocks[0].records[0].keyDelta = 0x1002;  // index says 0x1000, the record 0x1002
    tile.blocks[0].records[1].keyDelta = 3;       // 0x1005
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(tile)}, "")));
    EXPECT_FALSE(found(0x1000));
    EXPECT_TRUE(found(0x1002));
    EXPECT_TRUE(found(0x1005));
}

TEST_F(ReaderTest, InvalidDeltaEndsTheSearchAsNotFound) {
    HandTile tile = sampleTile();
    tile.blocks[0].records[1].keyDelta = 0;  // a second "block start" inside block 0
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(tile)}, "")));
    EXPECT_TRUE(found(0x1000));
    EXPECT_FALSE(found(0x1010));
    EXPECT_TRUE(found(0x2000));  // its own block is intact
}

// With one index entry the last key is read two bytes before the index: from
// the two count bytes (3, then 1) and the low four bytes of the first key.
TEST_F(ReaderTest, IndexCountOneTakesTheLastKeyFromBeforeTheIndex) {
    HandTile tile;
    tile.blocks = {{0x1000, {{0, 1, 1, 1, 1}, {5, 2, 2, 2, 2}, {0x10000000, 3, 3, 3, 3}}}};
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(tile)}, "")));
    EXPECT_TRUE(found(0x1000));
    EXPECT_TRUE(found(0x1005));
    EXPECT_FALSE(found(0x10001005));             // stored, but above the last key 0x10000103
    tile.blocks[0].records[2].keyDelta = 0x100;  // 0x1105, below 0x10000103
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(tile)}, "")));
    EXPECT_TRUE(found(0x1105));
}

// With no index entries the records start two bytes before the index: at the
// count bytes 1 and 0. The first "record" is key delta 1 (an absolute key 1)
// whose fields come from the zero count byte and the zero first index key.
TEST_F(ReaderTest, IndexCountZeroDecodesFromTheCountBytes) {
    HandTile tile = sampleTile();
    tile.blocks = {{0, {{0, 5, 5, 5, 5}}}};
    tile.recordCount = 1;
    tile.indexCount = 0;
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(tile)}, "")));
    std::optional<Tiles::StoredApData> record = lookupKey(1);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->latitude, 3'000'000 * std::ldexp(1.0, -16));
    EXPECT_EQ(record->longitude, 500'000 * std::ldexp(1.0, -16));
    EXPECT_EQ(record->quality, 18u);
    EXPECT_FALSE(found(2));
}

// Hostile counts in a file that ends exactly at a page boundary: any read past
// the mapping would fault.
TEST_F(ReaderTest, HostileCountsNeverReadOutsideTheMapping) {
    long page = sysconf(_SC_PAGESIZE);
    for (int64_t indexCount : {int64_t{0}, int64_t{1}, int64_t{0x7FFFFFFF}, int64_t{0xFFFFFFFF}}) {
        for (int64_t recordCount : {int64_t{0}, int64_t{1}, int64_t{0x10000000000}}) {
            HandTile tile = sampleTile();
            tile.indexCount = indexCount;
            tile.recordCount = recordCount;
            std::vector<uint8_t> tileBytes = encodeHandTile(tile);
            size_t fixed = handFile({tileBytes}, "").size();
            std::vector<uint8_t> padded(tileBytes);
            padded.resize(tileBytes.size() + (page - fixed % page) % page, 0xFF);
            std::vector<uint8_t> bytes = handFile({padded}, "");
            ASSERT_EQ(bytes.size() % page, 0u);
            ASSERT_TRUE(openBytes(bytes));
            for (uint64_t key : std::initializer_list<uint64_t>{0x0, 0x1000, 0x1005, 0x1010, 0x2000,
                                                                uint64_t{0xFFFFFFFFFFFF}}) {
                lookupKey(key);  // reads nothing past the mapping's end
            }
        }
    }
}

// A cut tile reads on into the directory and digest: what lies before the cut
// is still found with its values, the rest decodes whatever follows.
TEST_F(ReaderTest, TruncatedTileFindsWhatPrecedesTheCut) {
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(sampleTile())}, "")));
    Tiles::StoredApData whole = lookupKey(0x1005).value();
    std::vector<uint8_t> tileBytes = encodeHandTile(sampleTile());
    tileBytes.resize(tileBytes.size() - 6);  // block 1 and most of record 3 are gone
    ASSERT_TRUE(openBytes(handFile({tileBytes}, "")));
    EXPECT_TRUE(found(0x1000));
    Tiles::StoredApData cut = lookupKey(0x1005).value();
    EXPECT_EQ(cut.latitude, whole.latitude);
    EXPECT_EQ(cut.signalExponent, whole.signalExponent);
    for (size_t size = 0; size < tileBytes.size(); ++size) {  // every cut opens or fails cleanly
        if (openBytes(handFile({{tileBytes.begin(), tileBytes.begin() + size}}, ""))) {
            lookupKey(0x1000);
            lookupKey(0x2000);
        }
    }
}

TEST_F(ReaderTest, HashedKeysDependOnTheBasesOfTheTileSearched) {
    Core::MacAddress mac = *Core::parseMacText("00:11:22:33:44:55");
    auto tileHolding = [](uint64_t key, int64_t latBase) {
        HandTile tile;
        tile.latBase = latBase;
        tile.blocks = {{key, {{0, 1, 1, 1, 1}}}, {key + 1, {{0, 2, 2, 2, 2}}}};
        return encodeHandTile(tile);
    };
    uint64_t keyInA = Tiles::TileFormat::hashedKey(mac, 1000, 500'000, "city");
    ASSERT_NE(keyInA, Tiles::TileFormat::hashedKey(mac, 2000, 500'000, "city"));
    ASSERT_TRUE(openBytes(handFile({tileHolding(keyInA, 2000)}, "city"), "city"));
    EXPECT_FALSE(reader_->lookup(mac));  // keyed for other bases
    ASSERT_TRUE(openBytes(handFile({tileHolding(keyInA, 2000), tileHolding(keyInA, 1000)}, "city"),
                          "city"));
    EXPECT_EQ(reader_->lookup(mac).value().latitude, 1001 * std::ldexp(1.0, -16));
    // In the plain form the same file's keys are the MACs themselves.
    ASSERT_TRUE(openBytes(handFile({tileHolding(0x001122334455, 1000)}, "")));
    EXPECT_TRUE(reader_->lookup(mac));
}

TEST_F(ReaderTest, LookupIsEmptyUnlessOpenAndReopeningWorks) {
    EXPECT_FALSE(found(0x1000));
    std::vector<uint8_t> bytes = handFile({encodeHandTile(sampleTile())}, "");
    EXPECT_FALSE(openBytes(bytes, "other"));
    EXPECT_FALSE(found(0x1000));
    ASSERT_TRUE(openBytes(bytes));
    EXPECT_TRUE(found(0x1000));
    reader_->close();
    EXPECT_FALSE(found(0x1000));
    reader_->close();  // twice is harmless
    ASSERT_TRUE(reader_->open(path_, ""));
    EXPECT_TRUE(found(0x2000));
}

}  // namespace
}  // namespace ZEL::Tiles

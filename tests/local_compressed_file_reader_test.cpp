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
#include "tiles/local_compressed_file_reader.h"
#include "tiles/tile_format.h"

namespace ZEL::API {
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
    // Opens `bytes` written to a file; returns what open returned.
    bool openBytes(const std::vector<uint8_t>& bytes, const std::string& realm = "") {
        path_ = dir_.write("tiles.zel", bytes);
        return reader_->open(path_, realm);
    }
    // A found record carries the MAC asked for and a quality of at least 18.
    bool found(uint64_t key) {
        Tiles::ApRecord record = lookupKey(key);
        return record.mac == macOfKey(key) && record.data.quality >= 18;
    }
    Tiles::ApRecord lookupKey(uint64_t key) { return reader_->lookup(macOfKey(key)); }

    Testing::TempDir dir_;
    std::string path_;
    std::unique_ptr<Tiles::LocalCompressedFileReader> reader_ = Tiles::LocalCompressedFileReader::create();
};

TEST_F(ReaderTest, SmallestFileOpensAndHoldsNothing) {
    std::vector<uint8_t> bytes = handFile({}, "");
    ASSERT_EQ(bytes.size(), Tiles::TileFormat::kSmallestFileBytes);
    EXPECT_TRUE(openBytes(bytes));
    Tiles::ApRecord record = lookupKey(0x1000);
    EXPECT_EQ(record.mac, Core::MacAddress{});
    EXPECT_EQ(record.data.latitude, 0.0);
    EXPECT_EQ(record.data.quality, 0u);
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
    Testing::LogCapture fileLog("ZEL.SPI.IO.PosixFile");
    std::string missing = dir_.path() + "/missing.zel";
    EXPECT_FALSE(reader_->open(missing, ""));
    EXPECT_TRUE(log.contains("Couldn't open " + missing));
    EXPECT_TRUE(fileLog.contains(missing + ": open failed (2)"));

    // Bit positions are 32-bit: a file of 512 MiB can't be addressed (sparse, costs nothing).
    std::string huge = dir_.write("huge.zel", {'Z', 'E', 'L', '2'});
    ASSERT_EQ(truncate(huge.c_str(), Tiles::TileFormat::kMaxFileBytes + 1), 0);
    EXPECT_FALSE(reader_->open(huge, ""));
    EXPECT_TRUE(log.contains(huge + " is too large for a tile file (536870912 bytes, at most "
                                    "536870911)"));
}

TEST_F(ReaderTest, RecordValuesDecodeExactly) {
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(sampleTile())}, "")));
    double unit = std::ldexp(1.0, -16);
    Tiles::ApRecord first = lookupKey(0x1000);
    EXPECT_EQ(first.mac, macOfKey(0x1000));
    EXPECT_EQ(first.data.latitude, (1 + 3'000'000) * unit);
    EXPECT_EQ(first.data.longitude, (2 + 500'000) * unit);
    EXPECT_EQ(first.data.quality, 18u);               // code 0
    EXPECT_EQ(first.data.signalExponent, 1.0 / 6.0);  // code 0
    Tiles::ApRecord second = lookupKey(0x1005);
    EXPECT_EQ(second.data.quality, 21u);
    EXPECT_DOUBLE_EQ(second.data.signalExponent, 0.5);  // all four bits set
    Tiles::ApRecord third = lookupKey(0x1010);
    EXPECT_EQ(third.data.latitude, (4095 + 3'000'000) * unit);
    EXPECT_DOUBLE_EQ(third.data.signalExponent, 7 / 45.0 + 1 / 6.0);
    EXPECT_EQ(lookupKey(0x2000).data.quality, 27u);
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
        EXPECT_EQ(lookupKey(key).mac, Core::MacAddress{});
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
    Tiles::ApRecord record = lookupKey(1);
    ASSERT_EQ(record.mac, macOfKey(1));
    EXPECT_EQ(record.data.latitude, 3'000'000 * std::ldexp(1.0, -16));
    EXPECT_EQ(record.data.longitude, 500'000 * std::ldexp(1.0, -16));
    EXPECT_EQ(record.data.quality, 18u);
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
                Tiles::ApRecord record = lookupKey(key);
                EXPECT_TRUE(record.mac == Core::MacAddress{} || record.mac == macOfKey(key));
            }
        }
    }
}

// A cut tile reads on into the directory and digest: what lies before the cut
// is still found with its values, the rest decodes whatever follows.
TEST_F(ReaderTest, TruncatedTileFindsWhatPrecedesTheCut) {
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(sampleTile())}, "")));
    Tiles::ApRecord whole = lookupKey(0x1005);
    std::vector<uint8_t> tileBytes = encodeHandTile(sampleTile());
    tileBytes.resize(tileBytes.size() - 6);  // block 1 and most of record 3 are gone
    ASSERT_TRUE(openBytes(handFile({tileBytes}, "")));
    EXPECT_TRUE(found(0x1000));
    Tiles::ApRecord cut = lookupKey(0x1005);
    EXPECT_EQ(cut.data.latitude, whole.data.latitude);
    EXPECT_EQ(cut.data.signalExponent, whole.data.signalExponent);
    for (size_t size = 0; size < tileBytes.size(); ++size) {  // every cut opens or fails cleanly
        if (openBytes(handFile({{tileBytes.begin(), tileBytes.begin() + size}}, ""))) {
            lookupKey(0x1000);
            lookupKey(0x2000);
        }
    }
}

TEST_F(ReaderTest, MostRecentlyFoundTileIsTriedFirst) {
    // Both tiles hold key 0x1005 with different positions; only tile 1 holds 0x3000.
    HandTile second = sampleTile();
    second.latBase += 1000;
    second.blocks[1].key = 0x3000;
    ASSERT_TRUE(openBytes(handFile({encodeHandTile(sampleTile()), encodeHandTile(second)}, "")));
    double fromFirst = lookupKey(0x1005).data.latitude;
    EXPECT_TRUE(found(0x3000));  // answered by tile 1, which moves to the front
    double fromSecond = lookupKey(0x1005).data.latitude;
    EXPECT_DOUBLE_EQ(fromSecond - fromFirst, 1000 * std::ldexp(1.0, -16));
    EXPECT_TRUE(found(0x2000));  // only tile 0 has it: tile 0 back in front
    EXPECT_DOUBLE_EQ(lookupKey(0x1005).data.latitude, fromFirst);
    EXPECT_FALSE(found(0x3001));  // a miss changes nothing
    EXPECT_DOUBLE_EQ(lookupKey(0x1005).data.latitude, fromFirst);
}

// The reader against the lookup rule done literally (walk the tile list front to
// back, move the answering tile to the front) on a hashed file where many tiles,
// in a few groups of equal bases with overlapping key ranges, hold the same MACs:
// which tile answers is visible in the latitude. More tiles than the reader walks
// before it searches the groups, so both ways of answering are exercised.
TEST_F(ReaderTest, AnswersFollowTheMostRecentlyFoundOrderAcrossManyTiles) {
    const std::string realm = "order";
    const int64_t bases[][2] = {{1000, 500'000}, {1000, 500'001}, {-2000, 7}, {3, -9}};
    std::vector<Core::MacAddress> macs;
    for (uint8_t i = 0; i < 12; ++i) {
        macs.push_back({i, 0x44, static_cast<uint8_t>(i * 7), 0x22, 0x11, 0x02});
    }
    std::mt19937 random(5);
    struct ModelTile {
        int64_t latBase, lonBase;
        std::map<uint64_t, uint64_t> latOffsets;  // key -> latitude offset
    };
    std::vector<ModelTile> model;
    std::vector<std::vector<uint8_t>> tiles;
    for (uint64_t t = 0; t < 48; ++t) {
        ModelTile tile{bases[t % 4][0], bases[t % 4][1], {}};
        for (size_t m = 0; m < macs.size(); ++m) {
            if (random() % 3 == 0 || tile.latOffsets.size() < 2) {
                tile.latOffsets[Tiles::TileFormat::hashedKey(macs[m], static_cast<int32_t>(tile.latBase),
                                                      static_cast<int32_t>(tile.lonBase), realm)] =
                    t;
            }
        }
        HandTile hand;
        hand.latBase = tile.latBase;
        hand.lonBase = tile.lonBase;
        for (auto [key, latOffset] : tile.latOffsets) {
            hand.blocks.push_back({key, {{0, latOffset, 1, 1, 1}}});
        }
        tiles.push_back(encodeHandTile(hand));
        model.push_back(tile);
    }
    ASSERT_TRUE(openBytes(handFile(tiles, realm), realm));
    std::vector<size_t> order(model.size());
    for (size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    for (int step = 0; step < 2000; ++step) {
        // Mostly the pool, now and then a MAC stored nowhere.
        Core::MacAddress mac = macs[random() % macs.size()];
        if (step % 7 == 0) {
            mac[5] = 0x0E;
        }
        std::optional<size_t> expected;
        for (size_t position = 0; position < order.size() && !expected; ++position) {
            const ModelTile& tile = model[order[position]];
            uint64_t key = Tiles::TileFormat::hashedKey(mac, static_cast<int32_t>(tile.latBase),
                                                 static_cast<int32_t>(tile.lonBase), realm);
            // The range check sees only index keys; every key here is one.
            if (tile.latOffsets.count(key)) {
                expected = order[position];
                order.erase(order.begin() + static_cast<ptrdiff_t>(position));
                order.insert(order.begin(), *expected);
            }
        }
        Tiles::ApRecord record = reader_->lookup(mac);
        if (!expected) {
            ASSERT_EQ(record.mac, Core::MacAddress{}) << "step " << step;
            continue;
        }
        ASSERT_EQ(record.mac, mac) << "step " << step;
        const ModelTile& tile = model[*expected];
        ASSERT_EQ(record.data.latitude,
                  static_cast<double>(static_cast<int64_t>(*expected) + tile.latBase) *
                      std::ldexp(1.0, -16))
            << "step " << step << ": expected tile " << *expected;
    }
}

// The reader narrows its search of a group's tiles by the high bits of the key:
// tiles that start exactly at, just below and just above such boundaries, and
// keys on every side of them, at the bottom and the top of the key space.
TEST_F(ReaderTest, TilesAtEveryBoundaryOfTheKeySpaceAreFound) {
    std::vector<uint64_t> starts{0x000000000001, 0x0FFFFFFFFFFF};
    for (int bit = 40; bit < 48; ++bit) {
        uint64_t edge = uint64_t{1} << bit;
        starts.insert(starts.end(), {edge - 3, edge, edge + 2});
    }
    starts.push_back(0xFFFFFFFFFFFD);
    std::sort(starts.begin(), starts.end());
    std::vector<std::vector<uint8_t>> tiles;
    for (uint64_t start : starts) {
        HandTile tile;
        tile.blocks = {{start, {{0, 1, 1, 1, 1}}}, {start + 1, {{0, 2, 2, 2, 2}}}};
        tiles.push_back(encodeHandTile(tile));
    }
    ASSERT_TRUE(openBytes(handFile(tiles, "")));
    auto held = [&](uint64_t key) {
        return std::any_of(starts.begin(), starts.end(),
                           [&](uint64_t start) { return key == start || key == start + 1; });
    };
    for (uint64_t start : starts) {
        for (uint64_t key = start - 2; key != start + 4; ++key) {
            EXPECT_EQ(found(key), held(key)) << std::hex << key;
        }
    }
    EXPECT_FALSE(found(0));
    EXPECT_FALSE(found(0xFFFFFFFFFFFF));
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
    EXPECT_EQ(reader_->lookup(mac).mac, Core::MacAddress{});  // keyed for other bases
    ASSERT_TRUE(openBytes(handFile({tileHolding(keyInA, 2000), tileHolding(keyInA, 1000)}, "city"),
                          "city"));
    Tiles::ApRecord record = reader_->lookup(mac);
    EXPECT_EQ(record.mac, mac);
    EXPECT_EQ(record.data.latitude, 1001 * std::ldexp(1.0, -16));
    // In the plain form the same file's keys are the MACs themselves.
    ASSERT_TRUE(openBytes(handFile({tileHolding(0x001122334455, 1000)}, "")));
    EXPECT_EQ(reader_->lookup(mac).mac, mac);
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
}  // namespace ZEL::API

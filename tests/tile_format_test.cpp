// The tile file's codecs: bounds, the variable-length integer, keys.
#include <gtest/gtest.h>

#include <random>

#include "tiles/bit_reader.h"
#include "tiles/bit_writer.h"
#include "tiles/tile_format.h"

namespace ZEL::Tiles {
namespace {

TEST(BitReader, WideReadsAtEveryShiftMatchTheWriter) {
    std::mt19937_64 random(7);
    for (unsigned width : {1u, 7u, 8u, 31u, 32u, 33u, 48u, 57u, 58u, 63u, 64u}) {
        for (unsigned shift = 0; shift < 8; ++shift) {
            uint64_t value = width < 64 ? random() & ((uint64_t{1} << width) - 1) : random();
            BitWriter out;
            out.write(0x55, shift);
            out.write(value, width);
            out.write(0x3, 2);
            std::vector<uint8_t> bytes = out.bytes();
            for (size_t tail : {0, 16}) {  // with and without spare bytes after
                bytes.resize(out.bytes().size() + tail, 0);
                BitReader in(bytes.data(), static_cast<uint32_t>(bytes.size()));
                in.setPosition(shift);
                EXPECT_EQ(in.read(width), value) << width << " bits at shift " << shift;
                EXPECT_EQ(in.read(2), 3u);
            }
        }
    }
}

// The format requires a read past the end to yield 0 and leave the position alone.
TEST(BitReader, ReadPastTheEndYieldsZeroAndDoesNotMove) {
    const uint8_t bytes[] = {0xFF, 0xFF};
    BitReader in(bytes, sizeof bytes);
    in.setPosition(10);
    EXPECT_EQ(in.read(7), 0u);
    EXPECT_EQ(in.position(), 10u);
    EXPECT_EQ(in.read(6), 0x3Fu);  // exactly up to the end still works
    EXPECT_EQ(in.read(1), 0u);
    in.setPosition(17);
    in.align();  // alignment stays inside the stream
    EXPECT_EQ(in.position(), 17u);
    in.setPosition(0xFFFFFFF8u);  // far beyond: no overflow into a valid range
    EXPECT_EQ(in.read(64), 0u);
    EXPECT_EQ(in.readVarint(), 0u);
    EXPECT_EQ(in.position(), 0xFFFFFFF8u);
}

// The smallest and largest value of every encoded length, unaligned, at the very
// end of the stream and with a word to spare.
TEST(Varint, EveryLengthRoundTripsAtItsEdges) {
    for (unsigned length = 1; length <= 7; ++length) {
        uint64_t smallest = TileFormat::kVarintOffset[length];
        uint64_t largest = smallest + (uint64_t{1} << (7 * length)) - 1;
        for (uint64_t value : {smallest, smallest + 1, largest}) {
            BitWriter out;
            out.write(1, 1);
            out.writeVarint(value);
            EXPECT_EQ(BitWriter::varintLength(value), length);
            std::vector<uint8_t> bytes = out.bytes();
            for (size_t spare : {0, 8}) {
                bytes.resize(out.bytes().size() + spare, 0xFF);
                BitReader in(bytes.data(), static_cast<uint32_t>(bytes.size()));
                in.setPosition(1);
                EXPECT_EQ(in.readVarint(), value) << "length " << length << " spare " << spare;
                EXPECT_EQ(in.position(), 1 + 8 * length);
            }
        }
    }
    BitWriter out;
    out.writeVarint(0x80 + 0x1234);
    EXPECT_EQ(out.bytes(), (std::vector<uint8_t>{0x92, 0x34}));  // length bits, then big-endian
}

// Invalid lead bytes, and continuations cut off by the end of the stream (aligned
// or not), read as 0 and consume only the lead byte.
TEST(Varint, InvalidOrCutOffReadsAsZeroConsumingTheLead) {
    std::vector<std::pair<std::vector<uint8_t>, unsigned>> rows = {{{0xFE}, 0}, {{0xFF, 1, 2}, 0}};
    rows.push_back({{0xFE, 1, 2, 3, 4, 5, 6, 7, 8}, 0});
    for (unsigned length = 2; length <= 7; ++length) {
        for (unsigned shift : {0u, 4u}) {
            BitWriter out;
            out.write(0, shift);
            out.writeVarint(TileFormat::kVarintOffset[length] + 5);
            rows.push_back({out.bytes(), shift});
            rows.back().first.pop_back();
        }
    }
    for (const auto& [bytes, start] : rows) {
        BitReader in(bytes.data(), static_cast<uint32_t>(bytes.size()));
        in.setPosition(start);
        EXPECT_EQ(in.readVarint(), 0u) << bytes.size() << " bytes from " << start;
        EXPECT_EQ(in.position(), start + 8);
    }
}

// Expected values computed independently (openssl's MD4) from the texts shown.
TEST(TileKeys, DigestsAndKeysAreMd4OfTheirTexts) {
    auto hex = [](const TileFormat::Digest& digest) {
        std::string text;
        for (uint8_t byte : digest) {
            text += "0123456789abcdef"[byte >> 4];
            text += "0123456789abcdef"[byte & 15];
        }
        return text;
    };
    EXPECT_EQ(hex(TileFormat::realmDigest("")), "888f0c31b3584dcb4f9caa8351710606");  // "ZEL2"
    EXPECT_EQ(hex(TileFormat::realmDigest("city")), "f2409970ca7c0b6442fc533fcf183bbb");
    Core::MacAddress mac = *Core::parseMacText("AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(TileFormat::keyFor(mac, 123, -456, ""), 0xAABBCCDDEEFFu);
    // MD4("AABBCCDD123-456city") = 4cf451ac...: the last two octets are kept.
    EXPECT_EQ(TileFormat::keyFor(mac, 123, -456, "city"), 0x4CF451ACEEFFu);
    EXPECT_NE(TileFormat::hashedKey(mac, 124, -456, "city"), 0x4CF451ACEEFFu);
    EXPECT_NE(TileFormat::hashedKey(mac, 123, 456, "city"), 0x4CF451ACEEFFu);
}

}  // namespace
}  // namespace ZEL::Tiles

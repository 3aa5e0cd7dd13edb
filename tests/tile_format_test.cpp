// The tile file's codecs: bit order, bounds, the variable-length integer, keys.
#include <gtest/gtest.h>

#include <random>

#include "tiles/bit_reader.h"
#include "tiles/bit_writer.h"
#include "tiles/tile_format.h"

namespace ZEL::API {
namespace {

TEST(BitReaderOrder, ReadsLeastSignificantBitFirstAcrossBytes) {
    const uint8_t bytes[] = {0b10110100, 0b00000011, 0x78, 0x56, 0x34, 0x12, 0xF0};
    Tiles::BitReader in(bytes, sizeof bytes);
    EXPECT_EQ(in.read(2), 0b00u);
    EXPECT_EQ(in.read(3), 0b101u);
    EXPECT_EQ(in.read(5), 0b11101u);  // three high bits of byte 0, two low bits of byte 1
    EXPECT_EQ(in.position(), 10u);
    in.setPosition(16);
    EXPECT_EQ(in.read(32), 0x12345678u);  // aligned whole bytes read little-endian
    in.setPosition(52);
    EXPECT_EQ(in.read(4), 0xFu);
    in.setPosition(4);
    EXPECT_EQ(in.readSigned(4), -5);  // 0b1011
    in.setPosition(0);
    EXPECT_EQ(in.readSigned(3), 4 - 8);
    EXPECT_EQ(in.read(0), 0u);
    EXPECT_EQ(in.position(), 3u);
}

TEST(BitReaderOrder, WideReadsAtEveryShiftMatchTheWriter) {
    std::mt19937_64 random(7);
    for (unsigned width : {1u, 7u, 8u, 31u, 32u, 33u, 48u, 57u, 58u, 63u, 64u}) {
        for (unsigned shift = 0; shift < 8; ++shift) {
            uint64_t value = random();
            if (width < 64) {
                value &= (uint64_t{1} << width) - 1;
            }
            Tiles::BitWriter out;
            out.write(0x55, shift);
            out.write(value, width);
            out.write(0x3, 2);
            std::vector<uint8_t> bytes = out.bytes();
            for (size_t tail = 0; tail < 2; ++tail) {  // with and without spare bytes after
                bytes.resize(out.bytes().size() + tail * 16, 0);
                Tiles::BitReader in(bytes.data(), static_cast<uint32_t>(bytes.size()));
                in.setPosition(shift);
                EXPECT_EQ(in.read(width), value) << width << " bits at shift " << shift;
                EXPECT_EQ(in.read(2), 3u);
            }
        }
    }
}

TEST(BitReaderBounds, ReadPastTheEndYieldsZeroAndDoesNotMove) {
    const uint8_t bytes[] = {0xFF, 0xFF};
    Tiles::BitReader in(bytes, sizeof bytes);
    in.setPosition(10);
    EXPECT_EQ(in.read(7), 0u);
    EXPECT_EQ(in.position(), 10u);
    EXPECT_EQ(in.read(6), 0x3Fu);  // exactly up to the end still works
    EXPECT_EQ(in.position(), 16u);
    EXPECT_EQ(in.read(1), 0u);
    in.setPosition(0xFFFFFFF8u);  // far beyond: no overflow into a valid range
    EXPECT_EQ(in.read(64), 0u);
    EXPECT_EQ(in.readVarint(), 0u);
    EXPECT_EQ(in.position(), 0xFFFFFFF8u);
}

TEST(BitReaderBounds, AlignRaisesToTheNextByteOnlyInsideTheStream) {
    const uint8_t bytes[] = {0, 0};
    Tiles::BitReader in(bytes, sizeof bytes);
    in.setPosition(3);
    in.align();
    EXPECT_EQ(in.position(), 8u);
    in.align();
    EXPECT_EQ(in.position(), 8u);
    in.setPosition(17);
    in.align();
    EXPECT_EQ(in.position(), 17u);
}

// The smallest and largest value of every encoded length, and the byte patterns.
TEST(Varint, EveryLengthRoundTripsAtItsEdgesWithExactBytes) {
    for (unsigned length = 1; length <= 7; ++length) {
        uint64_t smallest = Tiles::TileFormat::kVarintOffset[length];
        uint64_t largest = smallest + (uint64_t{1} << (7 * length)) - 1;
        for (uint64_t value : {smallest, smallest + 1, largest}) {
            Tiles::BitWriter out;
            out.write(1, 1);  // unaligned on purpose
            out.writeVarint(value);
            EXPECT_EQ(Tiles::BitWriter::varintLength(value), length);
            EXPECT_EQ(out.bitCount(), 1 + 8 * length);
            std::vector<uint8_t> bytes = out.bytes();
            for (size_t spare : {0, 8}) {  // right at the end, and with a whole word to spare
                bytes.resize(out.bytes().size() + spare, 0xFF);
                Tiles::BitReader in(bytes.data(), static_cast<uint32_t>(bytes.size()));
                in.setPosition(1);
                EXPECT_EQ(in.readVarint(), value) << "length " << length << " spare " << spare;
                EXPECT_EQ(in.position(), 1 + 8 * length);
            }
        }
    }
    auto encode = [](uint64_t value) {
        Tiles::BitWriter out;
        out.writeVarint(value);
        return out.bytes();
    };
    EXPECT_EQ(encode(0x7F), (std::vector<uint8_t>{0x7F}));
    EXPECT_EQ(encode(0x80), (std::vector<uint8_t>{0x80, 0x00}));
    EXPECT_EQ(encode(0x80 + 0x1234), (std::vector<uint8_t>{0x92, 0x34}));
    EXPECT_EQ(encode(0x4080), (std::vector<uint8_t>{0xC0, 0x00, 0x00}));
    EXPECT_EQ(encode(0x40810204080 + 0x1000000000001),
              (std::vector<uint8_t>{0xFD, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01}));
}

TEST(Varint, InvalidLeadBytesReadAsZeroConsumingOneByte) {
    for (uint8_t lead : {uint8_t{0xFE}, uint8_t{0xFF}}) {
        const uint8_t bytes[] = {lead, 1, 2, 3, 4, 5, 6, 7, 8};
        for (uint32_t size : {1u, 4u, 9u}) {
            Tiles::BitReader in(bytes, size);
            EXPECT_EQ(in.readVarint(), 0u);
            EXPECT_EQ(in.position(), 8u);
        }
    }
}

TEST(Varint, CutOffContinuationReadsAsZeroConsumingOnlyTheLead) {
    for (unsigned length = 2; length <= 7; ++length) {
        Tiles::BitWriter out;
        out.writeVarint(Tiles::TileFormat::kVarintOffset[length] + 5);
        std::vector<uint8_t> bytes = out.bytes();
        for (size_t keep = 1; keep < bytes.size(); ++keep) {
            Tiles::BitReader in(bytes.data(), static_cast<uint32_t>(keep));
            EXPECT_EQ(in.readVarint(), 0u) << length << " bytes cut to " << keep;
            EXPECT_EQ(in.position(), 8u);
        }
        // Unaligned: 4 spare bits don't make a whole continuation byte.
        Tiles::BitWriter shifted;
        shifted.write(0, 4);
        shifted.writeVarint(Tiles::TileFormat::kVarintOffset[length] + 5);
        std::vector<uint8_t> cut = shifted.bytes();
        cut.pop_back();
        Tiles::BitReader in(cut.data(), static_cast<uint32_t>(cut.size()));
        in.setPosition(4);
        EXPECT_EQ(in.readVarint(), 0u);
        EXPECT_EQ(in.position(), 12u);
    }
}

// Expected digests computed independently (openssl's MD4) from the texts shown.
TEST(TileKeys, RealmDigestIsMd4OfMagicAndRealm) {
    auto hex = [](const Tiles::TileFormat::Digest& digest) {
        std::string text;
        char pair[3];
        for (uint8_t byte : digest) {
            std::snprintf(pair, sizeof pair, "%02x", byte);
            text += pair;
        }
        return text;
    };
    EXPECT_EQ(hex(Tiles::TileFormat::realmDigest("")), "888f0c31b3584dcb4f9caa8351710606");  // "ZEL2"
    EXPECT_EQ(hex(Tiles::TileFormat::realmDigest("city")), "f2409970ca7c0b6442fc533fcf183bbb");
}

TEST(TileKeys, PlainKeyIsTheMacAndHashedKeyKeepsItsLastTwoOctets) {
    Core::MacAddress mac = *Core::parseMacText("AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(Tiles::TileFormat::plainKey(mac), 0xAABBCCDDEEFFu);
    EXPECT_EQ(Tiles::TileFormat::keyFor(mac, 123, -456, ""), 0xAABBCCDDEEFFu);
    // MD4("AABBCCDD123-456city") = 4cf451ac...
    EXPECT_EQ(Tiles::TileFormat::hashedKey(mac, 123, -456, "city"), 0x4CF451ACEEFFu);
    EXPECT_EQ(Tiles::TileFormat::keyFor(mac, 123, -456, "city"), 0x4CF451ACEEFFu);
    EXPECT_NE(Tiles::TileFormat::hashedKey(mac, 124, -456, "city"), 0x4CF451ACEEFFu);
    EXPECT_NE(Tiles::TileFormat::hashedKey(mac, 123, 456, "city"), 0x4CF451ACEEFFu);
}

TEST(TileFormatWidths, BaseWidthsFollowTheLogarithmRule) {
    for (unsigned precision = 1; precision <= 7; ++precision) {
        EXPECT_EQ(Tiles::TileFormat::latBaseBits(precision), precision + 19);
        EXPECT_EQ(Tiles::TileFormat::lonBaseBits(precision), precision + 20);
    }
    EXPECT_EQ(Tiles::TileFormat::unitDegrees(1), 1.0 / 4096);
    EXPECT_EQ(Tiles::TileFormat::unitDegrees(7), 1.0 / 262144);
}

}  // namespace
}  // namespace ZEL::API

// The tile file: the on-device database of access-point positions of one realm.
// This header describes the format once, for the reader (tile.h,
// local_compressed_file_reader.h) and the writer (tile_writer.h) alike. The
// reader's correctness must not depend on how the writer lays things out, and
// the writer must not rely on leniency of the reader.
//
// BIT ORDER. The file is one bit stream, least significant bit first: stream bit
// p is bit (p % 8) of byte p / 8. An n-bit field at bit p is the integer whose bit
// k is stream bit p + k, so a byte-aligned whole-byte field is little-endian.
// Signed fields are two's complement in their n bits.
//
// FILE (S = size in bytes, N = tile count)
//   offset            size   field
//   0                 4      magic "ZEL2"
//   4                 ...    tile 0, tile 1, ...: tile i starts at 4 + size[0] + ... + size[i-1]
//   S - 18 - 4N       4N     tile directory: N uint32 LE tile sizes in bytes
//   S - 18            2      N, uint16 LE
//   S - 16            16     realm digest: MD4("ZEL2" + realm name)
// The smallest valid file (N = 0) has 22 bytes. Bit positions are 32-bit, so a
// file can have at most kMaxFileBytes bytes.
//
// TILE HEADER (starts on a byte boundary; p = precision, unit u = 2^-(p+11) deg)
//   #  bits      field         meaning
//   1  3         precision     1..7
//   2  p + 19    latBase       signed, tile origin latitude in units; never 0
//   3  p + 20    lonBase       signed, tile origin longitude in units; never 0
//   4  5         latBits       width of a record's latitude offset, 1..31
//   5  5         lonBits       width of a record's longitude offset, 1..31
//   6  3         qualityBits   1..7
//   7  3         exponentBits  1..7
//   -  0..7      padding to a byte boundary
//   8  varint    recordCount
//   9  varint    indexCount    (a writer always writes at least 2)
// BLOCK INDEX, byte-aligned right after field 9, at byte indexStart:
//   +0                6   key of block 0 (48-bit LE)
//   +6 + 8(i-1)       6   key of block i, i = 1 .. indexCount-1, strictly ascending
//   +12 + 8(i-1)      2   bitDelta of block i: uint16 LE, length in bits of block i-1
// RECORDS start at byte indexStart + 6 + 8(indexCount-1) (bit recordBase); block i
// starts at recordBase + bitDelta(1) + ... + bitDelta(i). Records are bit-packed
// without alignment and continue across block boundaries:
//   keyDelta (varint; 0 for a block's first record, whose key is the block key;
//   otherwise > 0, added to the previous key), latOffset (latBits),
//   lonOffset (lonBits), qualityCode (qualityBits), exponentCode (exponentBits).
// A tile's range is [key of block 0, key of the last block]; the writer puts the
// tile's greatest key alone in the last block.
//
// DECODED VALUES: latitude = (latOffset + latBase) * u, longitude likewise;
// quality = qualityCode + 18; signalExponent = exponentCode /
// ((2^exponentBits - 1) * 3.0) + 1/6, so between 1/6 and 1/2.
//
// VARINT: 1 to 7 "bytes" (each the next 8 bits of the stream, not necessarily
// aligned), continuation bytes most significant first. The leading one bits of
// b0 give the length; each length adds kVarintOffset so encodings are unique:
//   0xxxxxxx  1 byte   b0
//   10xxxxxx  2 bytes  ((b0 & 0x3F) << 8) + b1 + 0x80
//   ...       L bytes  ((b0 & (0x7F >> (L-1))) << 8(L-1)) + b1..b(L-1) + kVarintOffset[L]
//   1111111x  invalid, reads as 0
// A varint whose continuation bytes don't fit in the rest of the stream reads as
// 0 with only b0 consumed.
//
// KEYS: 48 bits. Write the MAC in printed order M[0]..M[5] (Core::MacAddress holds it
// reversed: mac[5] = M[0]).
//   plain (empty realm):  M[0] * 2^40 + ... + M[5], i.e. the stored bytes read LE.
//   hashed (any realm):   D = MD4(hex(M[0..3]) + dec(latBase) + dec(lonBase) + realm),
//                         key = (D[0..3] as big-endian) << 16 | M[4] << 8 | M[5].
// Hashed keys depend on the tile's bases, so one access point may have different
// keys in different tiles, and two access points may collide in one tile.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/scanned_ap.h"

namespace ZEL::Tiles::TileFormat {

constexpr std::array<uint8_t, 4> kMagic{'Z', 'E', 'L', '2'};
constexpr uint32_t kDigestBytes = 16;
constexpr uint32_t kTrailerBytes = 2 + kDigestBytes;  // tile count + digest
constexpr uint32_t kSmallestFileBytes = 4 + kTrailerBytes;
// Bit positions are held in 32 bits: size * 8 must stay below 2^32.
constexpr uint64_t kMaxFileBytes = (uint64_t{1} << 29) - 1;

constexpr unsigned kPrecisionBits = 3;
constexpr unsigned kOffsetWidthBits = 5;
constexpr unsigned kCodeWidthBits = 3;
constexpr unsigned kKeyBits = 48;
constexpr unsigned kIndexKeyBytes = 6;
constexpr unsigned kIndexEntryBytes = 8;  // key + bitDelta for every entry after the first
constexpr unsigned kBitDeltaBits = 16;
// Where index entry `i` starts, in bytes from the start of the index.
constexpr uint32_t indexEntryOffset(uint32_t i) {
    return i == 0 ? 0 : kIndexKeyBytes + kIndexEntryBytes * (i - 1);
}
// Where the records begin, in bytes from the start of the index, computed in 32-bit
// arithmetic as the format defines it: with an index count of 0 the record area
// starts two bytes before the index, over the count's own bytes.
constexpr uint32_t recordAreaOffset(uint32_t indexCount) {
    return kIndexKeyBytes + kIndexEntryBytes * (indexCount - 1);
}
constexpr uint32_t kQualityOffset = 18;
constexpr double kExponentFloor = 0.16666666666666666;
constexpr unsigned kMaxVarintBytes = 7;
// Added to the payload of a varint of L bytes (index L).
constexpr std::array<uint64_t, 8> kVarintOffset{0,        0,          0x80,        0x4080,
                                                0x204080, 0x10204080, 0x810204080, 0x40810204080};

// Widths of latBase and lonBase: ceil(log2(180) + p + 11) and ceil(log2(360) + p + 11).
unsigned latBaseBits(unsigned precision);
unsigned lonBaseBits(unsigned precision);
// The coordinate unit in degrees, 2^-(precision + 11).
double unitDegrees(unsigned precision);
// (2^exponentBits - 1) * 3.0
double exponentDivisor(unsigned exponentBits);

using Digest = std::array<uint8_t, kDigestBytes>;
// MD4("ZEL2" + realm), the last 16 bytes of a file for `realm`.
Digest realmDigest(std::string_view realm);

uint64_t plainKey(const Core::MacAddress& mac);
// Allocates nothing: the digest text is built on the stack.
uint64_t hashedKey(const Core::MacAddress& mac, int32_t latBase, int32_t lonBase,
                   std::string_view realm);
// The key of `mac` in a tile with these bases: plain when `realm` is empty.
inline uint64_t keyFor(const Core::MacAddress& mac, int32_t latBase, int32_t lonBase,
                       std::string_view realm) {
    return realm.empty() ? plainKey(mac) : hashedKey(mac, latBase, lonBase, realm);
}

}  // namespace ZEL::Tiles::TileFormat

#include "tiles/in_place_search.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace ZEL::Tiles {
namespace {

uint64_t load64(const uint8_t* bytes) {
    uint64_t word;
    std::memcpy(&word, bytes, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    word = __builtin_bswap64(word);
#endif
    return word;
}

constexpr uint64_t kKeyMask = (uint64_t{1} << TileFormat::kKeyBits) - 1;

// Whether every index entry of `tile` can be loaded as 8 bytes.
bool indexInside(const Tile& tile, uint32_t byteCount) {
    if (tile.indexCount() == 0) {
        return false;
    }
    uint64_t end = uint64_t{tile.indexStart()} + TileFormat::kIndexKeyBytes +
                   uint64_t{TileFormat::kIndexEntryBytes} * (tile.indexCount() - 1);
    return std::max<uint64_t>(end, uint64_t{tile.indexStart()} + 8) <= byteCount;
}

}  // namespace

Tile::Block locateInPlace(const Tile& tile, const uint8_t* bytes, uint32_t byteCount,
                          uint64_t key) {
    if (!indexInside(tile, byteCount)) {
        return tile.locate(key);
    }
    const uint8_t* index = bytes + tile.indexStart();
    Tile::Block block{tile.firstKey(), tile.recordBase()};
    uint64_t first = load64(index) & kKeyMask;
    if (first > key) {
        return block;
    }
    block.key = first;
    if (first == key) {
        return block;
    }
    const uint8_t* entry = index + TileFormat::kIndexKeyBytes;
    for (uint32_t i = 1; i < tile.indexCount(); ++i, entry += TileFormat::kIndexEntryBytes) {
        uint64_t word = load64(entry);  // key and bitDelta
        uint64_t indexKey = word & kKeyMask;
        if (indexKey > key) {
            break;
        }
        block.key = indexKey;
        block.start += static_cast<uint32_t>(word >> TileFormat::kKeyBits);
        if (indexKey == key) {
            break;
        }
    }
    return block;
}

bool decodeInPlace(const Tile& tile, const uint8_t* bytes, uint32_t byteCount,
                   const Tile::Block& block, uint64_t key, StoredApData& data) {
    if (tile.recordCount() == 0) {
        return false;
    }
    // Below this position a record's key delta (at most 7 bytes) loads as one word.
    const uint32_t fastEnd = byteCount > 16 ? (byteCount - 16) * 8 : 0;
    const unsigned skip = tile.recordBits();
    uint32_t position = block.start;
    uint64_t running = 0;
    for (uint32_t count = 0; count < tile.recordCount(); ++count) {
        if (position >= fastEnd) {
            return tile.decodeFrom(position, count, running, block, key, data);
        }
        uint64_t word = load64(bytes + (position >> 3)) >> (position & 7);
        unsigned ones = static_cast<unsigned>(std::countl_one(static_cast<uint8_t>(word)));
        uint64_t delta = 0;
        unsigned length = 1;
        if (ones < TileFormat::kMaxVarintBytes) {
            // The varint's bytes, first byte most significant, without its length bits.
            length = ones + 1;
            uint64_t payload = (__builtin_bswap64(word) >> (64 - 8 * length)) &
                               ((uint64_t{1} << (7 * length)) - 1);
            delta = payload + TileFormat::kVarintOffset[length];
        }
        position += 8 * length;
        Step step = advanceSearch(delta, count, block.key, key, running);
        if (step != Step::kOn) {
            if (step == Step::kAbsent) {
                return false;
            }
            data = tile.valuesAt(position);
            return true;
        }
        position += skip;
    }
    return false;
}

}  // namespace ZEL::Tiles

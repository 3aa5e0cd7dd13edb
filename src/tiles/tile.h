// One tile of a tile file (tile_format.h): its parsed header and the lookup of a
// key inside it. Tiles are made by the reader when it opens a file and read the
// mapped bytes through the reader's shared BitReader.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tiles/bit_reader.h"
#include "tiles/local_compressed_file_reader.h"

namespace ZEL::Tiles {

// How a search goes on after one record: it applies the record's key delta (the
// `count`-th record decoded, in a block whose key is `blockKey`) to `running`.
enum class Step { kAbsent, kFound, kOn };
inline Step advanceSearch(uint64_t delta, uint32_t count, uint64_t blockKey, uint64_t key,
                          uint64_t& running) {
    if (delta == 0) {
        if (count > 0) {
            return Step::kAbsent;  // a new block began before the key: malformed or absent
        }
        running = blockKey;
    } else {
        running += delta;
    }
    return running > key ? Step::kAbsent : running == key ? Step::kFound : Step::kOn;
}

class Tile {
  public:
    // Parses the header of the tile that starts at byte `startByte` of the
    // stream. Returns whether the header is valid (precision 1..7, non-zero bases
    // and widths); the reader keeps `bitReader` alive as long as the tile.
    bool parse(uint32_t startByte, BitReader* bitReader, uint32_t tileIndex);

    // Whether `key` lies in the tile's range [first block key, last block key].
    bool contains(uint64_t key) const { return firstKey_ <= key && key <= lastKey_; }
    // What the tile stores under `key` (computed with TileFormat::keyFor and this
    // tile's bases), searching through the bounds-checked BitReader. A key beyond
    // the tile's range is not searched: past its last record lie other bytes.
    bool findKey(uint64_t key, StoredApData& data) const {
        return contains(key) && decode(locate(key), key, data);
    }

    // Where `key` can lie: the key and the bit position of the last block whose
    // key does not exceed it.
    struct Block {
        uint64_t key;
        uint32_t start;
    };
    Block locate(uint64_t key) const;
    // Decodes the records from `block` on, looking for `key`.
    bool decode(const Block& block, uint64_t key, StoredApData& data) const;
    // The same, continuing at bit `position` with `count` records decoded and the
    // running key `running`.
    bool decodeFrom(uint32_t position, uint32_t count, uint64_t running, const Block& block,
                    uint64_t key, StoredApData& data) const;
    // The four value fields of the record whose values start at bit `position`.
    StoredApData valuesAt(uint32_t position) const;

    // Decodes the records one after the other from the start of the record area,
    // stopping after recordCount records or at the first one whose key does not
    // ascend. Returns the number decoded. For inspection, not for lookups.
    uint32_t forEachRecord(const std::function<void(uint64_t key, const StoredApData&)>&) const;

    uint32_t tileIndex() const { return tileIndex_; }
    int32_t latBase() const { return latBase_; }
    int32_t lonBase() const { return lonBase_; }
    unsigned precision() const { return precision_; }
    unsigned latBits() const { return latBits_; }
    unsigned lonBits() const { return lonBits_; }
    unsigned qualityBits() const { return qualityBits_; }
    unsigned exponentBits() const { return exponentBits_; }
    uint32_t recordCount() const { return recordCount_; }
    uint32_t indexCount() const { return indexCount_; }
    uint64_t firstKey() const { return firstKey_; }
    uint64_t lastKey() const { return lastKey_; }
    uint32_t indexStart() const { return indexStart_; }

    // The bit position of the record area (the end of the block index).
    uint32_t recordBase() const {
        return (indexStart_ + TileFormat::recordAreaOffset(indexCount_)) * 8;
    }

    // Bits of a record's value fields.
    unsigned recordBits() const { return latBits_ + lonBits_ + qualityBits_ + exponentBits_; }

  private:
    // Reads the four value fields at the current position.
    StoredApData decodeValues() const;

    BitReader* bitReader_ = nullptr;
    uint32_t indexStart_ = 0;
    int32_t latBase_ = 0;
    int32_t lonBase_ = 0;
    uint8_t latBits_ = 0;
    uint8_t lonBits_ = 0;
    uint8_t qualityBits_ = 0;
    uint8_t exponentBits_ = 0;
    uint8_t precision_ = 0;
    double unit_ = 0.0;
    double exponentDivisor_ = 0.0;
    uint32_t recordCount_ = 0;
    uint32_t indexCount_ = 0;
    uint64_t firstKey_ = 0;
    uint64_t lastKey_ = 0;
    uint32_t tileIndex_ = 0;
};

}  // namespace ZEL::Tiles

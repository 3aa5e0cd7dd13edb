// One tile of a tile file (tile_format.h): its parsed header and the lookup of a
// key inside it. Tiles are made by the reader when it opens a file and read the
// mapped bytes through the reader's shared BitReader.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "tiles/bit_reader.h"
#include "tiles/local_compressed_file_reader.h"

namespace ZEL::Tiles {

class Tile {
  public:
    // Parses the header of the tile that starts at byte `startByte` of the
    // stream. Returns whether the header is valid (precision 1..7, non-zero bases
    // and widths); the reader keeps `bitReader` alive as long as the tile.
    bool parse(uint32_t startByte, const std::string& realm, BitReader* bitReader,
               uint32_t tileIndex);

    // Whether `key` lies in the tile's range [first block key, last block key].
    bool contains(uint64_t key) const { return firstKey_ <= key && key <= lastKey_; }
    // The 48-bit key of `mac` in this tile: hashed with the bases when the realm
    // is not empty.
    uint64_t keyFor(const Core::MacAddress& mac) const;
    // Looks `mac` up; on success fills `record` (with `mac`) and returns true.
    bool find(const Core::MacAddress& mac, ApRecord& record) const;
    // The same for a key already computed by keyFor().
    bool findKey(uint64_t key, StoredApData& data) const { return decode(locate(key), key, data); }
    // The same, reading every field through the bounds-checked BitReader even where
    // the whole run lies inside the stream; the reference findKey must agree with.
    bool findKeyChecked(uint64_t key, StoredApData& data) const;

    // Where `key` can lie: the key and the bit position of the last block whose
    // key does not exceed it.
    struct Block {
        uint64_t key;
        uint32_t start;
    };
    Block locate(uint64_t key) const;
    // Decodes the records from `block` on, looking for `key`.
    bool decode(const Block& block, uint64_t key, StoredApData& data) const;

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
    uint32_t recordBase() const { return (indexStart_ + 6 + 8 * (indexCount_ - 1)) * 8; }

  private:
    unsigned recordBits() const { return latBits_ + lonBits_ + qualityBits_ + exponentBits_; }
    // Reads the four value fields at the current position.
    StoredApData decodeValues() const;
    Block locateChecked(uint64_t key) const;
    // Continues a decode at bit `position` with `count` records behind and the
    // running key `running`.
    bool decodeChecked(uint32_t position, uint32_t count, uint64_t running, const Block& block,
                       uint64_t key, StoredApData& data) const;

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
    bool indexInside_ = false;  // every index entry can be loaded as 8 bytes
    std::string realm_;
    uint32_t tileIndex_ = 0;
};

}  // namespace ZEL::Tiles

#include "tiles/tile.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace ZEL::Tiles {

bool Tile::parse(uint32_t startByte, BitReader* bitReader, uint32_t tileIndex) {
    bitReader_ = bitReader;
    tileIndex_ = tileIndex;
    BitReader& in = *bitReader_;
    in.setPosition(startByte * 8);
    precision_ = static_cast<uint8_t>(in.read(TileFormat::kPrecisionBits));
    if (precision_ == 0) {
        return false;
    }
    latBase_ = static_cast<int32_t>(in.readSigned(TileFormat::latBaseBits(precision_)));
    lonBase_ = static_cast<int32_t>(in.readSigned(TileFormat::lonBaseBits(precision_)));
    latBits_ = static_cast<uint8_t>(in.read(TileFormat::kOffsetWidthBits));
    lonBits_ = static_cast<uint8_t>(in.read(TileFormat::kOffsetWidthBits));
    qualityBits_ = static_cast<uint8_t>(in.read(TileFormat::kCodeWidthBits));
    exponentBits_ = static_cast<uint8_t>(in.read(TileFormat::kCodeWidthBits));
    unit_ = TileFormat::unitDegrees(precision_);
    if (unit_ == 0.0 || latBase_ == 0 || lonBase_ == 0 || latBits_ == 0 || lonBits_ == 0 ||
        qualityBits_ == 0 || exponentBits_ == 0) {
        return false;
    }
    exponentDivisor_ = TileFormat::exponentDivisor(exponentBits_);
    in.align();
    recordCount_ = static_cast<uint32_t>(in.readVarint());
    indexCount_ = static_cast<uint32_t>(in.readVarint());
    in.align();
    indexStart_ = (in.position() + 7) / 8;
    in.setPosition(indexStart_ * 8);
    firstKey_ = in.read(TileFormat::kKeyBits);
    // The last block's key, read as if the index had at least two entries: with
    // indexCount 1 this offset lies two bytes before the index, which the format
    // allows and a writer avoids by always writing two entries.
    in.setPosition((indexStart_ + TileFormat::kIndexKeyBytes +
                    (indexCount_ - 2) * TileFormat::kIndexEntryBytes) *
                   8);
    lastKey_ = in.read(TileFormat::kKeyBits);
    return true;
}

Tile::Block Tile::locate(uint64_t key) const {
    BitReader& in = *bitReader_;
    in.setPosition(indexStart_ * 8);
    Block block{firstKey_, recordBase()};
    constexpr uint64_t kKeyMask = (uint64_t{1} << TileFormat::kKeyBits) - 1;
    for (uint32_t i = 0;; ++i) {
        uint64_t indexKey;
        uint32_t delta = 0;
        if (i > 0 && in.has(TileFormat::kIndexEntryBytes * 8)) {
            uint64_t entry = in.read(TileFormat::kIndexEntryBytes * 8);  // key, then bitDelta
            indexKey = entry & kKeyMask;
            delta = static_cast<uint32_t>(entry >> TileFormat::kKeyBits);
        } else {
            uint32_t entryPosition = in.position();
            indexKey = in.read(TileFormat::kKeyBits);
            if (in.position() == entryPosition) {
                // Past the end every further entry reads as key 0 and delta 0, which
                // leaves the block key 0 and the offset as it is: stop here.
                block.key = 0;
                break;
            }
            delta = i > 0 ? static_cast<uint32_t>(in.read(TileFormat::kBitDeltaBits)) : 0;
        }
        if (indexKey > key) {
            break;
        }
        block.key = indexKey;
        block.start += delta;
        if (indexKey == key || i + 1 >= indexCount_) {
            break;
        }
    }
    return block;
}

bool Tile::decode(const Block& block, uint64_t key, StoredApData& data) const {
    return decodeFrom(block.start, 0, 0, block, key, data);
}

bool Tile::decodeFrom(uint32_t position, uint32_t count, uint64_t running, const Block& block,
                      uint64_t key, StoredApData& data) const {
    BitReader& in = *bitReader_;
    in.setPosition(position);
    const unsigned skip = recordBits();
    for (; count < recordCount_; ++count) {
        Step step = advanceSearch(in.readVarint(), count, block.key, key, running);
        if (step != Step::kOn) {
            if (step == Step::kAbsent) {
                return false;
            }
            data = decodeValues();
            return true;
        }
        in.setPosition(in.position() + skip);
    }
    return false;
}

StoredApData Tile::valuesAt(uint32_t position) const {
    bitReader_->setPosition(position);
    return decodeValues();
}

StoredApData Tile::decodeValues() const {
    BitReader& in = *bitReader_;
    StoredApData data;
    uint64_t latOffset = in.read(latBits_);
    uint64_t lonOffset = in.read(lonBits_);
    uint64_t qualityCode = in.read(qualityBits_);
    uint64_t exponentCode = in.read(exponentBits_);
    data.latitude = (static_cast<double>(latOffset) + latBase_) * unit_;
    data.longitude = (static_cast<double>(lonOffset) + lonBase_) * unit_;
    data.quality = static_cast<uint32_t>(qualityCode) + TileFormat::kQualityOffset;
    data.signalExponent =
        static_cast<double>(exponentCode) / exponentDivisor_ + TileFormat::kExponentFloor;
    return data;
}

uint32_t Tile::forEachRecord(
    const std::function<void(uint64_t key, const StoredApData&)>& visit) const {
    BitReader& in = *bitReader_;
    uint32_t recordPosition = recordBase();
    uint32_t nextBlock = 0;
    uint64_t running = 0;
    uint32_t count = 0;
    for (; count < recordCount_; ++count) {
        in.setPosition(recordPosition);
        uint64_t delta = in.readVarint();
        if (in.position() == recordPosition) {
            break;  // the stream ended
        }
        uint64_t key = running + delta;
        if (delta == 0) {  // a block starts: its key is in the index
            if (nextBlock >= indexCount_) {
                break;
            }
            uint32_t entry = indexStart_ + TileFormat::indexEntryOffset(nextBlock);
            uint32_t valuesPosition = in.position();
            in.setPosition(entry * 8);
            key = in.read(TileFormat::kKeyBits);
            in.setPosition(valuesPosition);
            ++nextBlock;
        }
        if (count > 0 && key <= running) {
            break;
        }
        running = key;
        StoredApData data = decodeValues();
        recordPosition = in.position();
        visit(key, data);
    }
    return count;
}

}  // namespace ZEL::Tiles

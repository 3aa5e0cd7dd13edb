#include "tiles/tile.h"

namespace ZEL::API {

bool Tile::parse(uint32_t startByte, const std::string& realm, BitReader* bitReader,
                 uint32_t tileIndex) {
    bitReader_ = bitReader;
    realm_ = realm;
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
    // With indexCount 1 this offset lies two bytes before the index; a writer
    // therefore always writes at least two entries.
    in.setPosition((indexStart_ + 6 + (indexCount_ - 2) * 8) * 8);
    lastKey_ = in.read(TileFormat::kKeyBits);
    return true;
}

uint64_t Tile::keyFor(const MacAddress& mac) const {
    return TileFormat::keyFor(mac, latBase_, lonBase_, realm_);
}

bool Tile::find(const MacAddress& mac, ApRecord& record) const {
    uint64_t key = keyFor(mac);
    if (!contains(key) || !findKey(key, record.data)) {
        return false;
    }
    record.mac = mac;
    return true;
}

bool Tile::findKey(uint64_t key, StoredApData& data) const {
    BitReader& in = *bitReader_;
    // The block: the last one whose key does not exceed `key`.
    in.setPosition(indexStart_ * 8);
    uint64_t blockKey = firstKey_;
    uint32_t blockStart = recordBase();
    for (uint32_t i = 0;; ++i) {
        uint32_t entryPosition = in.position();
        uint64_t indexKey;
        uint32_t delta = 0;
        if (i > 0 && uint64_t{entryPosition} + 64 <= in.bitLength()) {
            uint64_t entry = in.read(64);  // key and delta in one read
            indexKey = entry & ((uint64_t{1} << TileFormat::kKeyBits) - 1);
            delta = static_cast<uint32_t>(entry >> TileFormat::kKeyBits);
        } else {
            indexKey = in.read(TileFormat::kKeyBits);
            if (in.position() == entryPosition) {
                // Past the end every further entry reads as key 0 and delta 0, which
                // leaves the block key 0 and the offset as it is: stop here.
                blockKey = 0;
                break;
            }
            delta = i > 0 ? static_cast<uint32_t>(in.read(16)) : 0;
        }
        if (indexKey > key) {
            break;
        }
        blockKey = indexKey;
        blockStart += delta;
        if (indexKey == key || i + 1 >= indexCount_) {
            break;
        }
    }
    if (recordCount_ == 0) {
        return false;
    }
    in.setPosition(blockStart);
    uint64_t running = 0;
    for (uint32_t count = 0; count < recordCount_; ++count) {
        uint64_t delta = in.readVarint();
        if (delta == 0) {
            if (count > 0) {
                return false;  // a new block began before the key: malformed or absent
            }
            running = blockKey;
        } else {
            running += delta;
        }
        if (running > key) {
            return false;
        }
        if (running == key) {
            data = decodeValues();
            return true;
        }
        in.setPosition(in.position() + recordBits());
    }
    return false;
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
            uint32_t entry = nextBlock == 0 ? indexStart_ : indexStart_ + 6 + 8 * (nextBlock - 1);
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

}  // namespace ZEL::API

#include "tiles/tile.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace ZEL::Tiles {

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
    uint64_t indexEnd = uint64_t{indexStart_} + TileFormat::kIndexKeyBytes +
                        TileFormat::kIndexEntryBytes * (uint64_t{indexCount_} - 1);
    indexInside_ =
        indexCount_ > 0 && std::max<uint64_t>(indexEnd, indexStart_ + 8) <= in.bitLength() / 8;
    return true;
}

uint64_t Tile::keyFor(const Core::MacAddress& mac) const {
    return TileFormat::keyFor(mac, latBase_, lonBase_, realm_);
}

bool Tile::find(const Core::MacAddress& mac, ApRecord& record) const {
    uint64_t key = keyFor(mac);
    if (!contains(key) || !findKey(key, record.data)) {
        return false;
    }
    record.mac = mac;
    return true;
}

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

enum class Step { kAbsent, kFound, kOn };

// One record of a search: applies its key delta (the `count`-th record decoded,
// in a block whose key is `blockKey`) to `running` and says how the search goes on.
Step advance(uint64_t delta, uint32_t count, uint64_t blockKey, uint64_t key, uint64_t& running) {
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

}  // namespace

// The fast paths below read the mapping directly. They apply only where every
// load stays inside it, and then compute exactly what the checked paths compute.
Tile::Block Tile::locate(uint64_t key) const {
    if (!indexInside_) {
        return locateChecked(key);
    }
    const uint8_t* index = bitReader_->data() + indexStart_;
    Block block{firstKey_, recordBase()};
    uint64_t first = load64(index) & kKeyMask;
    if (first > key) {
        return block;
    }
    block.key = first;
    if (first == key) {
        return block;
    }
    const uint8_t* entry = index + TileFormat::kIndexKeyBytes;
    for (uint32_t i = 1; i < indexCount_; ++i, entry += TileFormat::kIndexEntryBytes) {
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

Tile::Block Tile::locateChecked(uint64_t key) const {
    BitReader& in = *bitReader_;
    in.setPosition(indexStart_ * 8);
    Block block{firstKey_, recordBase()};
    for (uint32_t i = 0;; ++i) {
        uint32_t entryPosition = in.position();
        uint64_t indexKey = in.read(TileFormat::kKeyBits);
        if (in.position() == entryPosition) {
            // Past the end every further entry reads as key 0 and delta 0, which
            // leaves the block key 0 and the offset as it is: stop here.
            block.key = 0;
            break;
        }
        uint32_t delta = i > 0 ? static_cast<uint32_t>(in.read(16)) : 0;
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
    if (recordCount_ == 0) {
        return false;
    }
    const uint8_t* bytes = bitReader_->data();
    uint32_t byteCount = bitReader_->byteCount();
    // Below this position a record's key delta (at most 7 bytes) loads as one word.
    const uint32_t fastEnd = byteCount > 16 ? (byteCount - 16) * 8 : 0;
    const unsigned skip = recordBits();
    uint32_t position = block.start;
    uint64_t running = 0;
    for (uint32_t count = 0; count < recordCount_; ++count) {
        if (position >= fastEnd) {
            return decodeChecked(position, count, running, block, key, data);
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
        Step step = advance(delta, count, block.key, key, running);
        if (step != Step::kOn) {
            if (step == Step::kAbsent) {
                return false;
            }
            bitReader_->setPosition(position);
            data = decodeValues();
            return true;
        }
        position += skip;
    }
    return false;
}

bool Tile::findKeyChecked(uint64_t key, StoredApData& data) const {
    if (recordCount_ == 0) {
        return false;
    }
    Block block = locateChecked(key);
    return decodeChecked(block.start, 0, 0, block, key, data);
}

bool Tile::decodeChecked(uint32_t position, uint32_t count, uint64_t running, const Block& block,
                         uint64_t key, StoredApData& data) const {
    BitReader& in = *bitReader_;
    in.setPosition(position);
    for (; count < recordCount_; ++count) {
        Step step = advance(in.readVarint(), count, block.key, key, running);
        if (step != Step::kOn) {
            if (step == Step::kAbsent) {
                return false;
            }
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

}  // namespace ZEL::Tiles

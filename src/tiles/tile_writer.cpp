#include "tiles/tile_writer.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <unordered_set>

#include "spi/log.h"
#include "spi/platform.h"
#include "tiles/bit_writer.h"
#include "tiles/tile_format.h"

namespace ZEL::Tiles {
namespace {

constexpr uint32_t kMaxBlockRecords = 496;  // 496 records of at most 132 bits fit 16 bits
constexpr uint32_t kMinTileRecords = 4;     // so that even splits never leave a lone record
constexpr uint32_t kMaxTiles = 0xFFFF;      // the tile count is 16 bits

// An access point with its values in stored units.
struct Quantized {
    Core::MacAddress mac;
    int64_t latCode;
    int64_t lonCode;
    uint32_t qualityCode;
    double exponent;  // clamped to 1/6..1/2; rounded per tile
    uint32_t input;   // position in the caller's list
};

struct Keyed {
    uint64_t key;
    uint32_t ap;  // position in the quantized list
};

struct TilePlan {
    int32_t latBase = 0;
    int32_t lonBase = 0;
    std::vector<Keyed> records;  // ascending keys
};

unsigned bitsFor(uint64_t value) {
    unsigned bits = 1;
    while (bits < 64 && (value >> bits) != 0) {
        ++bits;
    }
    return bits;
}

int32_t nonZero(int64_t base) {
    return static_cast<int32_t>(base == 0 ? -1 : base);
}

class Builder {
  public:
    Builder(const std::string& realm, const TileWriterOptions& options)
        : category_(SPI::getLogger("ZEL.API.TileWriter")), realm_(realm), options_(options) {}

    TileWriteResult run(const std::vector<AccessPointPosition>& input);

  private:
    std::string checkOptions() const;
    std::string quantize(const std::vector<AccessPointPosition>& input);
    std::vector<TilePlan> planPlain();
    std::vector<TilePlan> planHashed();
    std::vector<std::vector<uint32_t>> cellGroups() const;
    // Keys `members` under the bases of their own bounding box, ascending, with
    // colliding keys dropped (and counted when `count` is set).
    TilePlan keyGroup(const std::vector<uint32_t>& members, bool count);
    void splitInto(const TilePlan& group, bool ownBases, std::vector<TilePlan>& tiles) const;
    void setOwnBases(TilePlan& tile) const;
    std::vector<uint8_t> encodeTile(const TilePlan& tile) const;
    unsigned exponentBitsFor(const TilePlan& tile) const;

    SPI::Logger& category_;
    std::string realm_;
    TileWriterOptions options_;
    std::vector<Quantized> aps_;
    size_t dropped_ = 0;
};

std::string Builder::checkOptions() const {
    if (options_.precision < 1 || options_.precision > 7) {
        return "precision must be 1..7";
    }
    if (options_.blockRecords < 1 || options_.blockRecords > kMaxBlockRecords) {
        return "block record count must be 1..496";
    }
    if (options_.tileRecords < kMinTileRecords) {
        return "tile record count must be at least 4";
    }
    if (!(options_.cellDegrees > 0.0) || !std::isfinite(options_.cellDegrees)) {
        return "cell size must be a positive number of degrees";
    }
    return {};
}

std::string Builder::quantize(const std::vector<AccessPointPosition>& input) {
    double unit = TileFormat::unitDegrees(options_.precision);
    std::unordered_set<uint64_t> seen;
    for (uint32_t index = 0; index < input.size(); ++index) {
        const AccessPointPosition& ap = input[index];
        if (!(std::fabs(ap.latitude) <= 90.0) || !(std::fabs(ap.longitude) <= 180.0) ||
            !std::isfinite(ap.signalExponent)) {
            return "access point " + Core::macText(ap.mac) + " has an invalid position or exponent";
        }
        if (!seen.insert(TileFormat::plainKey(ap.mac)).second) {
            ZEL_LOG_WARN(category_, "dropped %s: given more than once",
                         Core::macText(ap.mac).c_str());
            ++dropped_;
            continue;
        }
        uint32_t quality = std::clamp<uint32_t>(ap.quality, 18, 18 + 127);
        double exponent = std::clamp(ap.signalExponent, TileFormat::kExponentFloor, 0.5);
        aps_.push_back({ap.mac, std::llround(ap.latitude / unit), std::llround(ap.longitude / unit),
                        quality - TileFormat::kQualityOffset, exponent, index});
    }
    if (aps_.size() < 2) {
        return "a tile file needs at least two distinct access points";
    }
    return {};
}

TileWriteResult Builder::run(const std::vector<AccessPointPosition>& input) {
    TileWriteResult result;
    result.error = checkOptions();
    if (result.error.empty()) {
        result.error = quantize(input);
    }
    if (!result.error.empty()) {
        return result;
    }
    std::vector<TilePlan> tiles = realm_.empty() ? planPlain() : planHashed();
    for (const TilePlan& tile : tiles) {
        if (tile.records.size() < 2) {
            result.error = "a tile file needs at least two distinct keys";
            return result;
        }
    }
    if (tiles.size() > kMaxTiles) {
        result.error = "more than 65535 tiles: raise the tile record count or the cell size";
        return result;
    }
    BitWriter file;
    for (uint8_t byte : TileFormat::kMagic) {
        file.write(byte, 8);
    }
    std::vector<uint32_t> sizes;
    result.tileOfInput.assign(input.size(), -1);
    for (const TilePlan& tile : tiles) {
        for (const Keyed& record : tile.records) {
            result.tileOfInput[aps_[record.ap].input] = static_cast<int32_t>(sizes.size());
        }
        std::vector<uint8_t> bytes = encodeTile(tile);
        sizes.push_back(static_cast<uint32_t>(bytes.size()));
        file.writeBytes(bytes);
        result.accessPoints += tile.records.size();
    }
    for (uint32_t size : sizes) {
        file.write(size, 32);
    }
    file.write(tiles.size(), 16);
    for (uint8_t byte : TileFormat::realmDigest(realm_)) {
        file.write(byte, 8);
    }
    if (file.bytes().size() > TileFormat::kMaxFileBytes) {
        result.error = "the file would exceed 512 MiB";
        return result;
    }
    result.ok = true;
    result.tiles = tiles.size();
    result.droppedDuplicates = dropped_;
    result.bytes = file.take();
    result.fileBytes = result.bytes.size();
    return result;
}

std::vector<TilePlan> Builder::planPlain() {
    std::vector<uint32_t> all(aps_.size());
    for (uint32_t i = 0; i < all.size(); ++i) {
        all[i] = i;
    }
    std::vector<TilePlan> tiles;
    splitInto(keyGroup(all, true), true, tiles);
    return tiles;
}

std::vector<std::vector<uint32_t>> Builder::cellGroups() const {
    std::map<std::pair<int64_t, int64_t>, std::vector<uint32_t>> cells;
    double unit = TileFormat::unitDegrees(options_.precision);
    // The grid starts at the south-west corner of the data, so that a city smaller
    // than a cell lies in one cell wherever it is.
    int64_t south = aps_[0].latCode, west = aps_[0].lonCode;
    for (const Quantized& ap : aps_) {
        south = std::min(south, ap.latCode);
        west = std::min(west, ap.lonCode);
    }
    for (uint32_t i = 0; i < aps_.size(); ++i) {
        auto row = static_cast<int64_t>(
            std::floor(static_cast<double>(aps_[i].latCode - south) * unit / options_.cellDegrees));
        auto col = static_cast<int64_t>(
            std::floor(static_cast<double>(aps_[i].lonCode - west) * unit / options_.cellDegrees));
        cells[{row, col}].push_back(i);
    }
    // A lone access point joins the cell before it (or, for the first, after it).
    std::vector<std::vector<uint32_t>> groups;
    std::vector<uint32_t> pending;
    for (auto& [cell, members] : cells) {
        if (members.size() == 1) {
            (groups.empty() ? pending : groups.back()).push_back(members[0]);
            continue;
        }
        groups.push_back(std::move(members));
        groups.back().insert(groups.back().end(), pending.begin(), pending.end());
        pending.clear();
    }
    if (groups.empty()) {
        groups.push_back(std::move(pending));
    }
    return groups;
}

std::vector<TilePlan> Builder::planHashed() {
    std::vector<std::vector<uint32_t>> groups = cellGroups();
    // Two colliding keys can leave a cell with one record: merge it on (rare).
    for (size_t i = 0; groups.size() > 1 && i < groups.size();) {
        if (keyGroup(groups[i], false).records.size() >= 2) {
            ++i;
            continue;
        }
        size_t target = i > 0 ? i - 1 : i + 1;
        groups[target].insert(groups[target].end(), groups[i].begin(), groups[i].end());
        groups.erase(groups.begin() + static_cast<ptrdiff_t>(i));
        i = target > i ? i : target;
    }
    std::vector<TilePlan> tiles;
    for (const auto& members : groups) {
        splitInto(keyGroup(members, true), false, tiles);
    }
    return tiles;
}

TilePlan Builder::keyGroup(const std::vector<uint32_t>& members, bool count) {
    TilePlan group;
    int64_t latMin = INT64_MAX, lonMin = INT64_MAX;
    for (uint32_t i : members) {
        latMin = std::min(latMin, aps_[i].latCode);
        lonMin = std::min(lonMin, aps_[i].lonCode);
    }
    group.latBase = nonZero(latMin);
    group.lonBase = nonZero(lonMin);
    group.records.reserve(members.size());
    for (uint32_t i : members) {
        uint64_t key = TileFormat::keyFor(aps_[i].mac, group.latBase, group.lonBase, realm_);
        group.records.push_back({key, i});
    }
    std::stable_sort(group.records.begin(), group.records.end(),
                     [](const Keyed& a, const Keyed& b) { return a.key < b.key; });
    auto last = std::unique(group.records.begin(), group.records.end(),
                            [&](const Keyed& kept, const Keyed& duplicate) {
                                if (kept.key != duplicate.key) {
                                    return false;
                                }
                                if (count) {
                                    ZEL_LOG_WARN(category_, "dropped %s: its key collides with %s",
                                                 Core::macText(aps_[duplicate.ap].mac).c_str(),
                                                 Core::macText(aps_[kept.ap].mac).c_str());
                                    ++dropped_;
                                }
                                return true;
                            });
    group.records.erase(last, group.records.end());
    return group;
}

void Builder::splitInto(const TilePlan& group, bool ownBases, std::vector<TilePlan>& tiles) const {
    size_t total = group.records.size();
    size_t count = (total + options_.tileRecords - 1) / options_.tileRecords;
    size_t begin = 0;
    for (size_t t = 0; t < count; ++t) {
        size_t end = total * (t + 1) / count;  // even split: every tile gets at least 2
        TilePlan tile;
        tile.latBase = group.latBase;
        tile.lonBase = group.lonBase;
        tile.records.assign(group.records.begin() + static_cast<ptrdiff_t>(begin),
                            group.records.begin() + static_cast<ptrdiff_t>(end));
        if (ownBases) {
            setOwnBases(tile);
        }
        tiles.push_back(std::move(tile));
        begin = end;
    }
}

void Builder::setOwnBases(TilePlan& tile) const {
    int64_t latMin = INT64_MAX, lonMin = INT64_MAX;
    for (const Keyed& record : tile.records) {
        latMin = std::min(latMin, aps_[record.ap].latCode);
        lonMin = std::min(lonMin, aps_[record.ap].lonCode);
    }
    tile.latBase = nonZero(latMin);
    tile.lonBase = nonZero(lonMin);
}

unsigned Builder::exponentBitsFor(const TilePlan& tile) const {
    for (unsigned bits = 1; bits < 7; ++bits) {
        double divisor = TileFormat::exponentDivisor(bits);
        bool fits = std::all_of(tile.records.begin(), tile.records.end(), [&](const Keyed& r) {
            double exponent = aps_[r.ap].exponent;
            double code = std::round((exponent - TileFormat::kExponentFloor) * divisor);
            double decoded = code / divisor + TileFormat::kExponentFloor;
            return std::fabs(decoded - exponent) <= options_.exponentTolerance;
        });
        if (fits) {
            return bits;
        }
    }
    return 7;
}

std::vector<uint8_t> Builder::encodeTile(const TilePlan& tile) const {
    uint64_t latMax = 0, lonMax = 0, qualityMax = 0;
    for (const Keyed& record : tile.records) {
        const Quantized& ap = aps_[record.ap];
        latMax = std::max<uint64_t>(latMax, static_cast<uint64_t>(ap.latCode - tile.latBase));
        lonMax = std::max<uint64_t>(lonMax, static_cast<uint64_t>(ap.lonCode - tile.lonBase));
        qualityMax = std::max<uint64_t>(qualityMax, ap.qualityCode);
    }
    unsigned latBits = bitsFor(latMax), lonBits = bitsFor(lonMax);
    unsigned qualityBits = bitsFor(qualityMax), exponentBits = exponentBitsFor(tile);
    double divisor = TileFormat::exponentDivisor(exponentBits);

    // Records: blocks of blockRecords, then the greatest key alone in the last block.
    size_t count = tile.records.size();
    BitWriter records;
    BitWriter index;
    uint64_t blockStart = 0;
    for (size_t i = 0; i < count; ++i) {
        bool opensBlock = i == count - 1 || i % options_.blockRecords == 0;
        if (opensBlock) {
            if (i > 0) {
                index.write(tile.records[i].key, TileFormat::kKeyBits);
                index.write(records.bitCount() - blockStart, 16);
            } else {
                index.write(tile.records[i].key, TileFormat::kKeyBits);
            }
            blockStart = records.bitCount();
        }
        const Quantized& ap = aps_[tile.records[i].ap];
        records.writeVarint(opensBlock ? 0 : tile.records[i].key - tile.records[i - 1].key);
        records.write(static_cast<uint64_t>(ap.latCode - tile.latBase), latBits);
        records.write(static_cast<uint64_t>(ap.lonCode - tile.lonBase), lonBits);
        records.write(ap.qualityCode, qualityBits);
        records.write(static_cast<uint64_t>(
                          std::llround((ap.exponent - TileFormat::kExponentFloor) * divisor)),
                      exponentBits);
    }
    uint64_t indexCount = (count - 2) / options_.blockRecords + 2;

    BitWriter out;
    unsigned precision = options_.precision;
    out.write(precision, TileFormat::kPrecisionBits);
    out.writeSigned(tile.latBase, TileFormat::latBaseBits(precision));
    out.writeSigned(tile.lonBase, TileFormat::lonBaseBits(precision));
    out.write(latBits, TileFormat::kOffsetWidthBits);
    out.write(lonBits, TileFormat::kOffsetWidthBits);
    out.write(qualityBits, TileFormat::kCodeWidthBits);
    out.write(exponentBits, TileFormat::kCodeWidthBits);
    out.align();
    out.writeVarint(count);
    out.writeVarint(indexCount);
    out.writeBytes(index.bytes());
    out.writeBytes(records.bytes());
    return out.take();
}

}  // namespace

TileWriteResult TileWriter::build(const std::vector<AccessPointPosition>& accessPoints,
                                  const std::string& realm, const TileWriterOptions& options) {
    return Builder(realm, options).run(accessPoints);
}

TileWriteResult TileWriter::writeFile(const std::string& path,
                                      const std::vector<AccessPointPosition>& accessPoints,
                                      const std::string& realm, const TileWriterOptions& options) {
    TileWriteResult result = build(accessPoints, realm, options);
    if (!result.ok) {
        return result;
    }
    std::unique_ptr<SPI::File> file = SPI::platform().newFile();
    if (!file || file->open(path, SPI::File::kWrite | SPI::File::kCreate) != 0 ||
        file->write(result.bytes.data(), result.bytes.size()) != result.bytes.size() ||
        file->close() != 0) {
        result.ok = false;
        result.error = "couldn't write " + path;
    }
    result.bytes.clear();
    result.bytes.shrink_to_fit();
    return result;
}

}  // namespace ZEL::Tiles

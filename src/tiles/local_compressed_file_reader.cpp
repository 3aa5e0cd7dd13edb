// The tile file reader. Lookups follow the rule "the first tile, most recently
// found first, whose range holds the key and which holds the record" and move the
// answering tile to the front. Walking every tile per lookup would cost a range
// check, and in the hashed form a key (one MD4), per tile, so the reader answers
// in two steps that give the same result:
//  1. it walks the few most recently found tiles in order (recent_); a scan's
//     access points mostly lie in the tiles that answered for the scan before;
//  2. otherwise it takes, per group of tiles that share their key function (all
//     tiles in the plain form, tiles with equal bases in the hashed form), the
//     tiles whose range holds the group's key, found among the group's tiles
//     sorted by first key through buckets on the key's high bits, and tries them
//     most recent first.
// A key is computed once per group and lookup. Recency is a stamp per tile;
// sorting the tiles by it gives the list order. The memory a lookup touches in
// the mapping (a block index, then a block) is prefetched as soon as the tile is
// known, so the candidates of one lookup are fetched side by side.
#include <algorithm>
#include <new>

#include "spi/platform.h"
#include "spi/log.h"
#include "tiles/tile.h"
#include "tiles/tile_directory.h"

namespace ZEL::Tiles {
namespace {

// Tiles sharing one key function, sorted by first key.
struct TileGroup {
    int32_t latBase = 0;
    int32_t lonBase = 0;
    std::vector<uint64_t> firstKeys;  // of the group's tiles, ascending
    // Per first key, what the search needs next, side by side.
    struct Slot {
        uint64_t maxLastKey;  // the greatest last key of the tiles of slots 0..i
        uint32_t tile;        // the tile position
    };
    std::vector<Slot> slots;
    // buckets[b]: how many first keys lie below b << bucketShift, so that the
    // first keys not above a key k are counted within buckets[b] .. buckets[b + 1]
    // for b = k >> bucketShift, a handful of tiles instead of the whole group.
    unsigned bucketShift = TileFormat::kKeyBits;
    std::vector<uint32_t> buckets;

    // The number of first keys not above `key`.
    size_t countNotAbove(uint64_t key) const;
    void buildBuckets();
};

// What a lookup needs of a tile before it decodes anything, in one cache line.
struct alignas(32) TileSummary {
    uint64_t firstKey = 0;
    uint64_t lastKey = 0;
    uint64_t recency = 0;     // the greatest is the front of the list
    uint32_t indexStart = 0;  // byte offset of the block index
    uint16_t indexLines = 0;  // cache lines the index spans (at most kMaxIndexLines)
    uint16_t group = 0;       // a file has at most 65535 tiles
};

constexpr uint32_t kLine = 64;
constexpr uint16_t kMaxIndexLines = 8;

// How many recently found tiles a lookup walks before it searches the groups. In
// the plain form there is one group, whose search is as cheap as the walk.
constexpr size_t kRecentPlain = 1;
constexpr size_t kRecentHashed = 32;

// The number of the `n` keys at `keys` (ascending) not above `key`, without branches.
size_t countNotAbove(const uint64_t* keys, size_t n, uint64_t key) {
    if (n == 0) {
        return 0;
    }
    const uint64_t* base = keys;
    while (n > 1) {
        size_t half = n / 2;
        base = base[half] <= key ? base + half : base;
        n -= half;
    }
    return static_cast<size_t>(base - keys) + (*base <= key);
}

void TileGroup::buildBuckets() {
    // About two buckets per tile, at most 2^16.
    unsigned bits = 1;
    while (bits < 16 && (size_t{1} << bits) < 2 * slots.size()) {
        ++bits;
    }
    bucketShift = TileFormat::kKeyBits - bits;
    buckets.resize((size_t{1} << bits) + 1);
    size_t below = 0;
    for (size_t b = 0; b < buckets.size(); ++b) {
        uint64_t start = uint64_t{b} << bucketShift;
        while (below < firstKeys.size() && firstKeys[below] < start) {
            ++below;
        }
        buckets[b] = static_cast<uint32_t>(below);
    }
}

size_t TileGroup::countNotAbove(uint64_t key) const {
    size_t bucket = static_cast<size_t>(key >> bucketShift);
    if (bucket + 1 >= buckets.size()) {  // keys are 48 bits; anything wider is above all
        return firstKeys.size();
    }
    size_t low = buckets[bucket];
    return low + Tiles::countNotAbove(firstKeys.data() + low, buckets[bucket + 1] - low, key);
}

class CompressedFileReader final : public LocalCompressedFileReader {
  public:
    CompressedFileReader() : category_(SPI::getLogger("ZEL.API.LocalCompressedFileReader")) {}
    ~CompressedFileReader() override { close(); }

    ApRecord lookup(const Core::MacAddress& mac) override;
    bool open(const std::string& path, const std::string& realm) override;
    void close() override;

  private:
    bool loadTiles();
    void buildGroups();
    // The key of `mac` in the tiles of `group`, computed once per lookup.
    uint64_t groupKey(uint32_t group, const Core::MacAddress& mac);
    // Appends the tiles of `group` whose range holds `key` and whose recency is
    // below `recencyBelow` (those above were walked already).
    void collectCandidates(uint32_t group, uint64_t key, uint64_t recencyBelow);
    // Starts fetching the block index of `tile` (all its lines at once) and the tile.
    void prefetch(uint32_t tile) const;
    void prefetchLine(uint64_t byte) const;
    // Makes `tile`, found at recent_[position] (or not there when position is
    // recent_.size()), the most recently found.
    void promote(size_t position, uint32_t tile);

    SPI::Logger& category_;
    std::string realm_;
    std::unique_ptr<SPI::File> file_;
    std::unique_ptr<SPI::FileMapping> mapping_;
    std::unique_ptr<BitReader> bitReader_;
    const uint8_t* mappedData_ = nullptr;  // the mapping's, kept at hand for prefetches
    uint64_t mappedLength_ = 0;
    std::vector<Tile> tiles_;             // file order
    std::vector<TileSummary> summaries_;  // per tile
    uint64_t nextStamp_ = 0;
    std::vector<uint32_t> recent_;  // the front of the recency order, most recent first
    size_t recentLimit_ = kRecentPlain;
    std::vector<TileGroup> groups_;
    // Per group, the key of the current lookup's MAC and the lookup it was made for.
    std::vector<uint64_t> groupKeys_;
    std::vector<uint32_t> groupKeyLookups_;
    uint32_t lookupCount_ = 0;
    struct Candidate {
        uint64_t recency;
        uint32_t tile;
        uint64_t key;
        Tile::Block block;
    };
    std::vector<Candidate> candidates_;  // reused by every lookup
};

bool CompressedFileReader::open(const std::string& path, const std::string& realm) {
    ZEL_LOG_DEBUG(category_, "Opening %s for realm %s...", path.c_str(), realm.c_str());
    close();
    realm_ = realm;
    file_ = SPI::platform().newFile();
    if (!file_) {
        ZEL_LOG_ERROR(category_, "Couldn't instantiate File object");
        return false;
    }
    if (file_->open(path, SPI::File::kRead) != 0) {
        ZEL_LOG_ERROR(category_, "Couldn't open %s", path.c_str());
        file_.reset();
        return false;
    }
    uint64_t size = file_->size();
    if (size != SPI::File::kSizeFailure && size > TileFormat::kMaxFileBytes) {
        ZEL_LOG_ERROR(category_, "%s is too large for a tile file (%llu bytes, at most %llu)",
                      path.c_str(), static_cast<unsigned long long>(size),
                      static_cast<unsigned long long>(TileFormat::kMaxFileBytes));
        file_.reset();
        return false;
    }
    if (size != SPI::File::kSizeFailure) {
        mapping_ = file_->map(0, static_cast<size_t>(size));
    }
    if (!mapping_) {
        ZEL_LOG_ERROR(category_, "Couldn't map file (%u)", static_cast<unsigned>(file_->size()));
        file_.reset();
        return false;
    }
    bitReader_ =
        std::make_unique<BitReader>(mapping_->data(), static_cast<uint32_t>(mapping_->length()));
    if (!loadTiles()) {
        ZEL_LOG_ERROR(category_, "Compressed file is broken");
        bitReader_.reset();
        mapping_.reset();
        file_.reset();
        return false;
    }
    mappedData_ = mapping_->data();
    mappedLength_ = mapping_->length();
    buildGroups();
    return true;
}

bool CompressedFileReader::loadTiles() {
    auto spans = readTileDirectory(mapping_->data(), mapping_->length(), realm_);
    if (!spans) {
        return false;
    }
    tiles_.reserve(spans->size());
    summaries_.reserve(spans->size());
    for (uint32_t i = 0; i < spans->size(); ++i) {
        Tile& tile = tiles_.emplace_back();
        if (!tile.parse((*spans)[i].start, realm_, bitReader_.get(), i)) {
            ZEL_LOG_ERROR(category_, "invalid tile %u", i);
            return false;
        }
        uint64_t indexBytes = tile.recordBase() / 8 - uint64_t{tile.indexStart() & ~(kLine - 1)};
        TileSummary& summary = summaries_.emplace_back();
        summary.firstKey = tile.firstKey();
        summary.lastKey = tile.lastKey();
        summary.indexStart = tile.indexStart();
        summary.indexLines = static_cast<uint16_t>(
            std::min<uint64_t>((indexBytes + kLine - 1) / kLine, kMaxIndexLines));
    }
    return true;
}

void CompressedFileReader::buildGroups() {
    // File order is the first recency order: tile 0 in front.
    for (uint32_t i = 0; i < tiles_.size(); ++i) {
        summaries_[i].recency = tiles_.size() - i;
    }
    nextStamp_ = tiles_.size() + 1;
    bool hashed = !realm_.empty();
    recentLimit_ = hashed ? kRecentHashed : kRecentPlain;
    for (uint32_t i = 0; i < tiles_.size() && recent_.size() < recentLimit_; ++i) {
        recent_.push_back(i);
    }
    std::vector<uint32_t> order(tiles_.size());
    for (uint32_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    auto groupKey = [&](uint32_t i) {
        return hashed ? std::pair(tiles_[i].latBase(), tiles_[i].lonBase()) : std::pair(0, 0);
    };
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        auto ga = groupKey(a), gb = groupKey(b);
        return ga != gb ? ga < gb : tiles_[a].firstKey() < tiles_[b].firstKey();
    });
    for (uint32_t i : order) {
        bool newBases = !groups_.empty() && (groups_.back().latBase != tiles_[i].latBase() ||
                                             groups_.back().lonBase != tiles_[i].lonBase());
        if (groups_.empty() || (hashed && newBases)) {
            groups_.emplace_back();
            groups_.back().latBase = tiles_[i].latBase();
            groups_.back().lonBase = tiles_[i].lonBase();
        }
        TileGroup& group = groups_.back();
        uint64_t maxLast = group.slots.empty() ? 0 : group.slots.back().maxLastKey;
        group.firstKeys.push_back(tiles_[i].firstKey());
        group.slots.push_back({std::max(maxLast, tiles_[i].lastKey()), i});
        summaries_[i].group = static_cast<uint16_t>(groups_.size() - 1);
    }
    for (TileGroup& group : groups_) {
        group.buildBuckets();
    }
    groupKeys_.assign(groups_.size(), 0);
    groupKeyLookups_.assign(groups_.size(), 0);
    lookupCount_ = 0;
}

uint64_t CompressedFileReader::groupKey(uint32_t group, const Core::MacAddress& mac) {
    if (groupKeyLookups_[group] != lookupCount_) {
        groupKeyLookups_[group] = lookupCount_;
        groupKeys_[group] =
            TileFormat::keyFor(mac, groups_[group].latBase, groups_[group].lonBase, realm_);
    }
    return groupKeys_[group];
}

void CompressedFileReader::prefetchLine(uint64_t byte) const {
    if (byte < mappedLength_) {
        __builtin_prefetch(mappedData_ + byte);
    }
}

void CompressedFileReader::prefetch(uint32_t tile) const {
    const TileSummary& summary = summaries_[tile];
    uint64_t first = summary.indexStart & ~(kLine - 1);
    for (uint32_t line = 0; line < summary.indexLines; ++line) {
        prefetchLine(first + uint64_t{line} * kLine);
    }
    __builtin_prefetch(&tiles_[tile]);
}

void CompressedFileReader::collectCandidates(uint32_t groupIndex, uint64_t key,
                                             uint64_t recencyBelow) {
    const TileGroup& group = groups_[groupIndex];
    for (size_t i = group.countNotAbove(key); i > 0 && group.slots[i - 1].maxLastKey >= key; --i) {
        uint32_t tile = group.slots[i - 1].tile;
        const TileSummary& summary = summaries_[tile];
        if (summary.lastKey >= key && summary.recency < recencyBelow) {
            prefetch(tile);
            candidates_.push_back({summary.recency, tile, key, {}});
        }
    }
}

void CompressedFileReader::promote(size_t position, uint32_t tile) {
    summaries_[tile].recency = nextStamp_++;
    if (position == recent_.size()) {
        recent_.insert(recent_.begin(), tile);
        if (recent_.size() > recentLimit_) {
            recent_.pop_back();
        }
    } else {
        std::rotate(recent_.begin(), recent_.begin() + static_cast<ptrdiff_t>(position),
                    recent_.begin() + static_cast<ptrdiff_t>(position) + 1);
    }
}

ApRecord CompressedFileReader::lookup(const Core::MacAddress& mac) {
    ApRecord record;
    if (!bitReader_ || tiles_.empty()) {
        return record;
    }
    if (++lookupCount_ == 0) {  // the count wrapped: forget every remembered key
        std::fill(groupKeyLookups_.begin(), groupKeyLookups_.end(), 0);
        lookupCount_ = 1;
    }
    for (size_t position = 0; position < recent_.size(); ++position) {
        uint32_t tile = recent_[position];
        const TileSummary& summary = summaries_[tile];
        uint64_t key = groupKey(summary.group, mac);
        if (key >= summary.firstKey && key <= summary.lastKey &&
            tiles_[tile].findKey(key, record.data)) {
            record.mac = mac;
            promote(position, tile);
            return record;
        }
    }
    uint64_t recencyBelow = summaries_[recent_.back()].recency;
    candidates_.clear();
    for (uint32_t group = 0; group < groups_.size(); ++group) {
        collectCandidates(group, groupKey(group, mac), recencyBelow);
    }
    if (candidates_.empty()) {
        return record;
    }
    if (candidates_.size() > 1) {
        // Find every candidate's block first, so that the blocks load side by side.
        for (Candidate& candidate : candidates_) {
            candidate.block = tiles_[candidate.tile].locate(candidate.key);
            prefetchLine(candidate.block.start / 8);
            prefetchLine(candidate.block.start / 8 + kLine);
        }
        std::sort(candidates_.begin(), candidates_.end(),
                  [](const Candidate& a, const Candidate& b) { return a.recency > b.recency; });
    } else {
        candidates_[0].block = tiles_[candidates_[0].tile].locate(candidates_[0].key);
    }
    for (const Candidate& candidate : candidates_) {
        if (tiles_[candidate.tile].decode(candidate.block, candidate.key, record.data)) {
            record.mac = mac;
            promote(recent_.size(), candidate.tile);
            return record;
        }
    }
    return ApRecord{};
}

void CompressedFileReader::close() {
    bitReader_.reset();
    mapping_.reset();
    file_.reset();
    mappedData_ = nullptr;
    mappedLength_ = 0;
    tiles_.clear();
    summaries_.clear();
    recent_.clear();
    groups_.clear();
    groupKeys_.clear();
    groupKeyLookups_.clear();
}

}  // namespace

std::unique_ptr<LocalCompressedFileReader> LocalCompressedFileReader::create() {
    return std::unique_ptr<LocalCompressedFileReader>(new (std::nothrow) CompressedFileReader());
}

}  // namespace ZEL::Tiles

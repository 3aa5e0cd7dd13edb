// The tile file reader. Lookups follow the rule "the first tile, most recently
// found first, whose range holds the key and which holds the record" and move the
// answering tile to the front. Walking every tile per lookup would cost a range
// check per tile, so the reader also keeps, per group of tiles that share their
// key function (all tiles in the plain form, tiles with equal bases in the hashed
// form), the tiles sorted by first key: a lookup computes one key per group and
// finds the candidate tiles by binary search, then tries them in recency order.
// Recency is a stamp per tile; sorting the tiles by it gives the list order.
#include <algorithm>
#include <new>

#include "spi/file.h"
#include "spi/log.h"
#include "tiles/tile.h"
#include "tiles/tile_directory.h"

namespace ZEL::API {
namespace {

// Tiles sharing one key function, sorted by first key.
struct TileGroup {
    int32_t latBase = 0;
    int32_t lonBase = 0;
    std::vector<uint32_t> tiles;        // tile positions, by first key
    std::vector<uint64_t> firstKeys;    // firstKeys[i] of tiles[i]
    std::vector<uint64_t> maxLastKeys;  // the greatest last key of tiles[0..i]
    std::vector<uint64_t> lastKeys;     // lastKeys[i] of tiles[i]
    std::vector<uint32_t> indexStarts;  // where the block index of tiles[i] lies
};

class CompressedFileReader final : public LocalCompressedFileReader {
  public:
    CompressedFileReader() : category_(SPI::getCategory("ZEL.API.LocalCompressedFileReader")) {}
    ~CompressedFileReader() override { close(); }

    ApRecord lookup(const MacAddress& mac) override;
    bool open(const std::string& path, const std::string& realm) override;
    void close() override;

  private:
    bool loadTiles();
    void buildGroups();
    // Appends the tiles of `group` whose range holds `key`, except `skip`.
    void collectCandidates(const TileGroup& group, uint64_t key, uint32_t skip);

    log4cpp::Category& category_;
    std::string realm_;
    std::unique_ptr<SPI::File> file_;
    std::unique_ptr<SPI::FileMapping> mapping_;
    std::unique_ptr<BitReader> bitReader_;
    std::vector<std::unique_ptr<Tile>> tiles_;  // file order
    std::vector<uint64_t> recency_;             // per tile; the greatest is the front
    uint64_t nextStamp_ = 0;
    uint32_t front_ = 0;
    std::vector<TileGroup> groups_;
    struct Candidate {
        uint64_t recency;
        uint32_t tile;
        uint64_t key;
    };
    std::vector<Candidate> candidates_;  // reused by every lookup
};

bool CompressedFileReader::open(const std::string& path, const std::string& realm) {
    ZEL_LOG_DEBUG(category_, "Opening %s for realm %s...", path.c_str(), realm.c_str());
    close();
    realm_ = realm;
    file_ = SPI::createFile();
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
    buildGroups();
    return true;
}

bool CompressedFileReader::loadTiles() {
    auto spans = readTileDirectory(mapping_->data(), mapping_->length(), realm_);
    if (!spans) {
        return false;
    }
    tiles_.reserve(spans->size());
    for (uint32_t i = 0; i < spans->size(); ++i) {
        auto tile = std::make_unique<Tile>();
        bool valid = tile->parse((*spans)[i].start, realm_, bitReader_.get(), i);
        if (!valid) {
            ZEL_LOG_ERROR(category_, "invalid tile %u", i);
            return false;
        }
        tiles_.push_back(std::move(tile));
    }
    return true;
}

void CompressedFileReader::buildGroups() {
    // File order is the first recency order: tile 0 in front.
    recency_.resize(tiles_.size());
    for (uint32_t i = 0; i < tiles_.size(); ++i) {
        recency_[i] = tiles_.size() - i;
    }
    nextStamp_ = tiles_.size() + 1;
    front_ = 0;
    std::vector<uint32_t> order(tiles_.size());
    for (uint32_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    bool hashed = !realm_.empty();
    auto groupKey = [&](uint32_t i) {
        return hashed ? std::pair(tiles_[i]->latBase(), tiles_[i]->lonBase()) : std::pair(0, 0);
    };
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        auto ga = groupKey(a), gb = groupKey(b);
        return ga != gb ? ga < gb : tiles_[a]->firstKey() < tiles_[b]->firstKey();
    });
    for (uint32_t i : order) {
        bool newBases = !groups_.empty() && (groups_.back().latBase != tiles_[i]->latBase() ||
                                             groups_.back().lonBase != tiles_[i]->lonBase());
        if (groups_.empty() || (hashed && newBases)) {
            groups_.push_back({tiles_[i]->latBase(), tiles_[i]->lonBase(), {}, {}, {}, {}, {}});
        }
        TileGroup& group = groups_.back();
        uint64_t maxLast = group.maxLastKeys.empty() ? 0 : group.maxLastKeys.back();
        group.tiles.push_back(i);
        group.firstKeys.push_back(tiles_[i]->firstKey());
        group.maxLastKeys.push_back(std::max(maxLast, tiles_[i]->lastKey()));
        group.lastKeys.push_back(tiles_[i]->lastKey());
        group.indexStarts.push_back(tiles_[i]->indexStart());
    }
}

void CompressedFileReader::collectCandidates(const TileGroup& group, uint64_t key, uint32_t skip) {
    size_t end = std::upper_bound(group.firstKeys.begin(), group.firstKeys.end(), key) -
                 group.firstKeys.begin();
    for (size_t i = end; i > 0 && group.maxLastKeys[i - 1] >= key; --i) {
        uint32_t tile = group.tiles[i - 1];
        if (tile != skip && group.lastKeys[i - 1] >= key) {
            // The tile object and its index are both needed next: fetch them together.
            __builtin_prefetch(tiles_[tile].get());
            if (group.indexStarts[i - 1] < mapping_->length()) {
                __builtin_prefetch(mapping_->data() + group.indexStarts[i - 1]);
            }
            candidates_.push_back({recency_[tile], tile, key});
        }
    }
}

ApRecord CompressedFileReader::lookup(const MacAddress& mac) {
    ApRecord record;
    if (!bitReader_ || tiles_.empty()) {
        return record;
    }
    // Consecutive lookups of one scan mostly fall in the front tile.
    if (tiles_[front_]->find(mac, record)) {
        return record;
    }
    candidates_.clear();
    for (const TileGroup& group : groups_) {
        collectCandidates(group, TileFormat::keyFor(mac, group.latBase, group.lonBase, realm_),
                          front_);
    }
    if (candidates_.size() > 1) {
        std::sort(candidates_.begin(), candidates_.end(),
                  [](const Candidate& a, const Candidate& b) { return a.recency > b.recency; });
    }
    for (const Candidate& candidate : candidates_) {
        if (tiles_[candidate.tile]->findKey(candidate.key, record.data)) {
            record.mac = mac;
            recency_[candidate.tile] = nextStamp_++;
            front_ = candidate.tile;
            return record;
        }
    }
    return ApRecord{};
}

void CompressedFileReader::close() {
    bitReader_.reset();
    mapping_.reset();
    file_.reset();
    tiles_.clear();
    recency_.clear();
    groups_.clear();
    front_ = 0;
}

}  // namespace

std::unique_ptr<LocalCompressedFileReader> LocalCompressedFileReader::create() {
    return std::unique_ptr<LocalCompressedFileReader>(new (std::nothrow) CompressedFileReader());
}

}  // namespace ZEL::API

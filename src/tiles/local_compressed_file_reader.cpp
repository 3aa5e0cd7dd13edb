// The tile file reader: maps the file, checks its frame, parses every tile header
// once, and answers lookups in the order tile_search.h describes. The memory a
// lookup touches in the mapping (a block index, then a block) is prefetched as
// soon as the tile is known, so the candidates of one lookup are fetched side by side.
#include <algorithm>
#include <new>

#include "spi/log.h"
#include "spi/platform.h"
#include "tiles/in_place_search.h"
#include "tiles/tile.h"
#include "tiles/tile_directory.h"
#include "tiles/tile_search.h"

namespace ZEL::Tiles {
namespace {

constexpr uint32_t kLine = 64;
constexpr uint32_t kMaxIndexLines = 8;

class CompressedFileReader final : public LocalCompressedFileReader {
  public:
    CompressedFileReader() : log_(SPI::getLogger("ZEL.API.LocalCompressedFileReader")) {}
    ~CompressedFileReader() override { close(); }

    std::optional<StoredApData> lookup(const Core::MacAddress& mac) override;
    bool open(const std::string& path, const std::string& realm) override;
    bool open(std::shared_ptr<const SPI::FileMapping> image, const std::string& name,
              const std::string& realm) override;
    void close() override;

  private:
    // Checks and parses the file in `mapping`; on failure logs and closes.
    bool attach(std::shared_ptr<const SPI::FileMapping> mapping);
    bool loadTiles();
    // Starts fetching the block index of `tile` (all its lines at once).
    void prefetchIndex(uint32_t tile) const;
    void prefetchLine(uint64_t byte) const;
    bool findInTile(uint32_t tile, uint64_t key, StoredApData& data) const {
        const uint8_t* bytes = mapping_->data();
        const uint32_t byteCount = bitReader_->byteCount();
        return decodeInPlace(tiles_[tile], bytes, byteCount,
                             locateInPlace(tiles_[tile], bytes, byteCount, key), key, data);
    }

    SPI::Logger& log_;
    std::string realm_;
    std::unique_ptr<SPI::File> file_;
    std::shared_ptr<const SPI::FileMapping> mapping_;
    std::unique_ptr<BitReader> bitReader_;
    std::vector<Tile> tiles_;  // file order
    TileSearch search_;
    std::vector<Tile::Block> blocks_;  // per candidate of the current lookup
};

bool CompressedFileReader::open(const std::string& path, const std::string& realm) {
    ZEL_LOG_DEBUG(log_, "Opening %s for realm %s...", path.c_str(), realm.c_str());
    close();
    realm_ = realm;
    file_ = SPI::platform().newFile();
    if (!file_) {
        ZEL_LOG_ERROR(log_, "Couldn't instantiate File object");
        return false;
    }
    if (file_->open(path, SPI::File::kRead) != 0) {
        ZEL_LOG_ERROR(log_, "Couldn't open %s", path.c_str());
        file_.reset();
        return false;
    }
    uint64_t size = file_->size();
    if (size != SPI::File::kSizeFailure && size > TileFormat::kMaxFileBytes) {
        ZEL_LOG_ERROR(log_, "%s is too large for a tile file (%llu bytes, at most %llu)",
                      path.c_str(), static_cast<unsigned long long>(size),
                      static_cast<unsigned long long>(TileFormat::kMaxFileBytes));
        file_.reset();
        return false;
    }
    std::shared_ptr<const SPI::FileMapping> mapping;
    if (size != SPI::File::kSizeFailure) {
        mapping = file_->map(0, static_cast<size_t>(size));
    }
    if (!mapping) {
        ZEL_LOG_ERROR(log_, "Couldn't map file (%u)", static_cast<unsigned>(file_->size()));
        file_.reset();
        return false;
    }
    return attach(std::move(mapping));
}

bool CompressedFileReader::open(std::shared_ptr<const SPI::FileMapping> image,
                                const std::string& name, const std::string& realm) {
    ZEL_LOG_DEBUG(log_, "Opening %s in memory for realm %s...", name.c_str(), realm.c_str());
    close();
    realm_ = realm;
    return image && attach(std::move(image));
}

bool CompressedFileReader::attach(std::shared_ptr<const SPI::FileMapping> mapping) {
    mapping_ = std::move(mapping);
    bitReader_ =
        std::make_unique<BitReader>(mapping_->data(), static_cast<uint32_t>(mapping_->length()));
    if (!loadTiles()) {
        ZEL_LOG_ERROR(log_, "Compressed file is broken");
        close();
        return false;
    }
    return true;
}

bool CompressedFileReader::loadTiles() {
    auto spans = readTileDirectory(mapping_->data(), mapping_->length(), realm_);
    if (!spans) {
        return false;
    }
    tiles_.reserve(spans->size());
    std::vector<TileSearch::TileRange> ranges;
    ranges.reserve(spans->size());
    for (uint32_t i = 0; i < spans->size(); ++i) {
        Tile& tile = tiles_.emplace_back();
        if (!tile.parse((*spans)[i].start, bitReader_.get(), i)) {
            ZEL_LOG_ERROR(log_, "invalid tile %u", i);
            return false;
        }
        ranges.push_back({tile.firstKey(), tile.lastKey(), tile.latBase(), tile.lonBase()});
    }
    search_.reset(ranges, realm_);
    return true;
}

void CompressedFileReader::prefetchLine(uint64_t byte) const {
    if (byte < mapping_->length()) {
        __builtin_prefetch(mapping_->data() + byte);
    }
}

void CompressedFileReader::prefetchIndex(uint32_t tile) const {
    const Tile& header = tiles_[tile];
    uint64_t first = header.indexStart() & ~(kLine - 1);
    uint64_t lines =
        std::min<uint64_t>((header.recordBase() / 8 - first + kLine - 1) / kLine, kMaxIndexLines);
    for (uint64_t line = 0; line < lines; ++line) {
        prefetchLine(first + line * kLine);
    }
}

std::optional<StoredApData> CompressedFileReader::lookup(const Core::MacAddress& mac) {
    if (!bitReader_) {
        return std::nullopt;
    }
    StoredApData data;
    search_.begin(mac);
    for (size_t position = 0; position < search_.recentCount(); ++position) {
        uint32_t tile = search_.recentTile(position);
        std::optional<uint64_t> key = search_.keyInRange(tile);
        if (key && findInTile(tile, *key, data)) {
            search_.promote(position, tile);
            return data;
        }
    }
    const std::vector<TileSearch::Candidate>& candidates = search_.candidates();
    if (candidates.size() == 1) {  // nothing to overlap: search it at once
        if (findInTile(candidates[0].tile, candidates[0].key, data)) {
            search_.promote(search_.recentCount(), candidates[0].tile);
            return data;
        }
        return std::nullopt;
    }
    // Find every candidate's block first, so that the blocks load side by side.
    for (const TileSearch::Candidate& candidate : candidates) {
        prefetchIndex(candidate.tile);
    }
    blocks_.clear();
    for (const TileSearch::Candidate& candidate : candidates) {
        Tile::Block block = locateInPlace(tiles_[candidate.tile], mapping_->data(),
                                          bitReader_->byteCount(), candidate.key);
        prefetchLine(block.start / 8);
        prefetchLine(block.start / 8 + kLine);
        blocks_.push_back(block);
    }
    for (size_t i = 0; i < candidates.size(); ++i) {
        if (decodeInPlace(tiles_[candidates[i].tile], mapping_->data(), bitReader_->byteCount(),
                          blocks_[i], candidates[i].key, data)) {
            search_.promote(search_.recentCount(), candidates[i].tile);
            return data;
        }
    }
    return std::nullopt;
}

void CompressedFileReader::close() {
    search_.clear();
    tiles_.clear();
    bitReader_.reset();
    mapping_.reset();
    file_.reset();
}

}  // namespace

std::unique_ptr<LocalCompressedFileReader> LocalCompressedFileReader::create() {
    return std::unique_ptr<LocalCompressedFileReader>(new (std::nothrow) CompressedFileReader());
}

}  // namespace ZEL::Tiles

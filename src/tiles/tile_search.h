// Which tile of a file answers for a MAC: the search order of the tile reader.
//
// The rule: the first tile, most recently found first, whose range holds the key
// and which holds the record; the answering tile moves to the front. Walking every
// tile per lookup would cost a range check, and in the hashed form a key (one MD4),
// per tile, so the search answers in two steps that give the same result:
//  1. the few most recently found tiles, in order (recentTile()); a scan's access
//     points mostly lie in the tiles that answered for the scan before;
//  2. otherwise, per group of tiles that share their key function (all tiles in
//     the plain form, tiles with equal bases in the hashed form), the tiles whose
//     range holds the group's key, found among the group's tiles sorted by first
//     key through buckets on the key's high bits (candidates()), most recent first.
// A key is computed once per group and lookup. Recency is a stamp per tile.
//
//   search.begin(mac);
//   for (size_t i = 0; i < search.recentCount(); ++i) { ... search.keyInRange(tile) ... }
//   for (const auto& candidate : search.candidates()) { ... }
//   search.promote(...);  // the tile that held the record
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/scanned_ap.h"
#include "tiles/tile_format.h"

namespace ZEL::Tiles {

class TileSearch {
  public:
    // What the search needs of a tile, in file order.
    struct TileRange {
        uint64_t firstKey = 0;
        uint64_t lastKey = 0;
        int32_t latBase = 0;
        int32_t lonBase = 0;
    };
    struct Candidate {
        uint64_t recency;
        uint32_t tile;
        uint64_t key;
    };

    // Takes the tiles of a file for `realm` (empty: the plain form). File order is
    // the first recency order: tile 0 in front.
    void reset(const std::vector<TileRange>& tiles, const std::string& realm);
    void clear();

    // Starts the lookup of `mac`.
    void begin(const Core::MacAddress& mac);
    // The walk of step 1: position 0 is the most recently found tile.
    size_t recentCount() const { return recent_.size(); }
    uint32_t recentTile(size_t position) const { return recent_[position]; }
    // The key of the current MAC in `tile` when the tile's range holds it.
    std::optional<uint64_t> keyInRange(uint32_t tile) {
        const Tile& range = tiles_[tile];
        uint64_t key = groupKey(range.group);
        if (key < range.firstKey || key > range.lastKey) {
            return std::nullopt;
        }
        return key;
    }
    // Step 2: the tiles not walked in step 1 whose range holds their group's key,
    // most recent first. Valid until the next call.
    const std::vector<Candidate>& candidates();
    // Makes `tile` the most recently found; `position` is its place in the walk, or
    // recentCount() when it answered in step 2.
    void promote(size_t position, uint32_t tile);

  private:
    // Tiles sharing one key function, sorted by first key.
    struct Group {
        int32_t latBase = 0;
        int32_t lonBase = 0;
        std::vector<uint64_t> firstKeys;  // ascending
        struct Slot {
            uint64_t maxLastKey;  // the greatest last key of the tiles of slots 0..i
            uint32_t tile;
        };
        std::vector<Slot> slots;  // per first key
        // buckets[b]: how many first keys lie below b << bucketShift, so that the
        // first keys not above a key k are counted within buckets[b] .. buckets[b + 1]
        // for b = k >> bucketShift, a handful of tiles instead of the whole group.
        unsigned bucketShift = TileFormat::kKeyBits;
        std::vector<uint32_t> buckets;

        size_t countNotAbove(uint64_t key) const;
        void buildBuckets();
    };
    struct Tile {
        uint64_t firstKey = 0;
        uint64_t lastKey = 0;
        uint64_t recency = 0;  // the greatest is the front of the order
        uint32_t group = 0;
    };

    uint64_t groupKey(uint32_t group) {
        return groupKeyLookups_[group] == lookupCount_ ? groupKeys_[group] : computeKey(group);
    }
    uint64_t computeKey(uint32_t group);

    std::string realm_;
    std::vector<Tile> tiles_;
    std::vector<Group> groups_;
    std::vector<uint32_t> recent_;  // the front of the recency order, most recent first
    size_t recentLimit_ = 1;
    uint64_t nextStamp_ = 0;
    Core::MacAddress mac_{};
    // Per group, the key of the current lookup's MAC and the lookup it was made for.
    std::vector<uint64_t> groupKeys_;
    std::vector<uint32_t> groupKeyLookups_;
    uint32_t lookupCount_ = 0;
    std::vector<Candidate> candidates_;
};

}  // namespace ZEL::Tiles

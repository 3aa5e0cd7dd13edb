#include "tiles/tile_search.h"

#include <algorithm>
#include <tuple>

namespace ZEL::Tiles {
namespace {

// How many recently found tiles a lookup walks before it searches the groups. In
// the plain form there is one group, whose search is as cheap as the walk.
constexpr size_t kRecentPlain = 1;
constexpr size_t kRecentHashed = 32;

// The number of the `n` keys at `keys` (ascending) not above `key`, without branches.
size_t countKeysNotAbove(const uint64_t* keys, size_t n, uint64_t key) {
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

}  // namespace

void TileSearch::Group::buildBuckets() {
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

size_t TileSearch::Group::countNotAbove(uint64_t key) const {
    size_t bucket = static_cast<size_t>(key >> bucketShift);
    if (bucket + 1 >= buckets.size()) {  // keys are 48 bits; anything wider is above all
        return firstKeys.size();
    }
    size_t low = buckets[bucket];
    return low + countKeysNotAbove(firstKeys.data() + low, buckets[bucket + 1] - low, key);
}

void TileSearch::reset(const std::vector<TileRange>& tiles, const std::string& realm) {
    clear();
    realm_ = realm;
    const bool hashed = !realm.empty();
    tiles_.resize(tiles.size());
    for (uint32_t i = 0; i < tiles.size(); ++i) {
        tiles_[i].firstKey = tiles[i].firstKey;
        tiles_[i].lastKey = tiles[i].lastKey;
        tiles_[i].recency = tiles.size() - i;
    }
    nextStamp_ = tiles.size() + 1;
    recentLimit_ = hashed ? kRecentHashed : kRecentPlain;
    for (uint32_t i = 0; i < tiles.size() && recent_.size() < recentLimit_; ++i) {
        recent_.push_back(i);
    }
    std::vector<uint32_t> order(tiles.size());
    for (uint32_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    auto bases = [&](uint32_t i) {
        return hashed ? std::pair(tiles[i].latBase, tiles[i].lonBase) : std::pair(0, 0);
    };
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
        return bases(a) != bases(b) ? bases(a) < bases(b) : tiles[a].firstKey < tiles[b].firstKey;
    });
    for (uint32_t i : order) {
        if (groups_.empty() ||
            bases(i) != std::pair(groups_.back().latBase, groups_.back().lonBase)) {
            Group& group = groups_.emplace_back();
            std::tie(group.latBase, group.lonBase) = bases(i);
        }
        Group& group = groups_.back();
        uint64_t maxLast = group.slots.empty() ? 0 : group.slots.back().maxLastKey;
        group.firstKeys.push_back(tiles[i].firstKey);
        group.slots.push_back({std::max(maxLast, tiles[i].lastKey), i});
        tiles_[i].group = static_cast<uint32_t>(groups_.size() - 1);
    }
    for (Group& group : groups_) {
        group.buildBuckets();
    }
    groupKeys_.assign(groups_.size(), 0);
    groupKeyLookups_.assign(groups_.size(), 0);
}

void TileSearch::clear() {
    tiles_.clear();
    groups_.clear();
    recent_.clear();
    groupKeys_.clear();
    groupKeyLookups_.clear();
    candidates_.clear();
    lookupCount_ = 0;
}

void TileSearch::begin(const Core::MacAddress& mac) {
    mac_ = mac;
    if (++lookupCount_ == 0) {  // the count wrapped: forget every remembered key
        std::fill(groupKeyLookups_.begin(), groupKeyLookups_.end(), 0);
        lookupCount_ = 1;
    }
}

uint64_t TileSearch::computeKey(uint32_t group) {
    groupKeyLookups_[group] = lookupCount_;
    groupKeys_[group] =
        TileFormat::keyFor(mac_, groups_[group].latBase, groups_[group].lonBase, realm_);
    return groupKeys_[group];
}

const std::vector<TileSearch::Candidate>& TileSearch::candidates() {
    candidates_.clear();
    if (recent_.empty()) {
        return candidates_;
    }
    const uint64_t recencyBelow = tiles_[recent_.back()].recency;
    for (uint32_t g = 0; g < groups_.size(); ++g) {
        const Group& group = groups_[g];
        const uint64_t key = groupKey(g);
        for (size_t i = group.countNotAbove(key); i > 0 && group.slots[i - 1].maxLastKey >= key;
             --i) {
            uint32_t tile = group.slots[i - 1].tile;
            if (tiles_[tile].lastKey >= key && tiles_[tile].recency < recencyBelow) {
                candidates_.push_back({tiles_[tile].recency, tile, key});
            }
        }
    }
    if (candidates_.size() > 1) {
        std::sort(candidates_.begin(), candidates_.end(),
                  [](const Candidate& a, const Candidate& b) { return a.recency > b.recency; });
    }
    return candidates_;
}

void TileSearch::promote(size_t position, uint32_t tile) {
    tiles_[tile].recency = nextStamp_++;
    if (position >= recent_.size()) {
        recent_.insert(recent_.begin(), tile);
        if (recent_.size() > recentLimit_) {
            recent_.pop_back();
        }
    } else {
        std::rotate(recent_.begin(), recent_.begin() + static_cast<ptrdiff_t>(position),
                    recent_.begin() + static_cast<ptrdiff_t>(position) + 1);
    }
}

}  // namespace ZEL::Tiles

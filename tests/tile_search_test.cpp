// The search order of the tile reader against the rule done literally: walk the
// tile list front to back, take the first tile whose range holds the key and which
// holds the record, move it to the front.
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <optional>
#include <random>
#include <set>

#include "support/hand_built_tile.h"
#include "tiles/tile_search.h"

namespace ZEL::Tiles {
namespace {

using Testing::macOfKey;

// Drives the search as the reader does; `holds` says whether a tile has the key.
template <typename Holds>
std::optional<uint32_t> find(TileSearch& search, const Core::MacAddress& mac, Holds holds) {
    search.begin(mac);
    for (size_t position = 0; position < search.recentCount(); ++position) {
        uint32_t tile = search.recentTile(position);
        if (auto key = search.keyInRange(tile); key && holds(tile, *key)) {
            search.promote(position, tile);
            return tile;
        }
    }
    for (const TileSearch::Candidate& candidate : search.candidates()) {
        if (holds(candidate.tile, candidate.key)) {
            search.promote(search.recentCount(), candidate.tile);
            return candidate.tile;
        }
    }
    return std::nullopt;
}

struct ModelTile {
    TileSearch::TileRange range;
    std::set<uint64_t> keys;
};

// Many tiles (more than the search walks before it searches the groups), in a few
// groups of equal bases with overlapping ranges, holding the same MACs.
TEST(TileSearch, AnswersInTheMostRecentlyFoundOrder) {
    for (const std::string realm : {"order", ""}) {
        const int32_t bases[][2] = {{1000, 500'000}, {1000, 500'001}, {-2000, 7}, {3, -9}};
        std::vector<Core::MacAddress> macs;
        for (uint64_t i = 0; i < 12; ++i) {
            macs.push_back(macOfKey(0x021122004400 | i * 7 << 16 | i));
        }
        std::mt19937 random(5);
        std::vector<ModelTile> model;
        std::vector<TileSearch::TileRange> ranges;
        for (uint32_t t = 0; t < 48; ++t) {
            ModelTile tile;
            tile.range.latBase = bases[t % 4][0];
            tile.range.lonBase = bases[t % 4][1];
            for (const Core::MacAddress& mac : macs) {
                if (random() % 3 == 0 || tile.keys.size() < 2) {
                    tile.keys.insert(
                        TileFormat::keyFor(mac, tile.range.latBase, tile.range.lonBase, realm));
                }
            }
            // Ranges wider than the keys held, so that ranges overlap and misses occur.
            tile.range.firstKey = *tile.keys.begin() - (random() % 2);
            tile.range.lastKey = *tile.keys.rbegin() + (random() % 2);
            model.push_back(tile);
            ranges.push_back(tile.range);
        }
        TileSearch search;
        search.reset(ranges, realm);
        std::vector<uint32_t> order(model.size());
        std::iota(order.begin(), order.end(), 0u);
        auto holds = [&](uint32_t tile, uint64_t key) { return model[tile].keys.count(key) > 0; };
        for (int step = 0; step < 2000; ++step) {
            Core::MacAddress mac = macs[random() % macs.size()];
            if (step % 7 == 0) {
                mac[5] = 0x0E;  // stored nowhere
            }
            std::optional<uint32_t> expected;
            for (size_t position = 0; position < order.size() && !expected; ++position) {
                const ModelTile& tile = model[order[position]];
                uint64_t key =
                    TileFormat::keyFor(mac, tile.range.latBase, tile.range.lonBase, realm);
                if (key >= tile.range.firstKey && key <= tile.range.lastKey &&
                    tile.keys.count(key)) {
                    expected = order[position];
                    order.erase(order.begin() + static_cast<ptrdiff_t>(position));
                    order.insert(order.begin(), *expected);
                }
            }
            ASSERT_EQ(find(search, mac, holds), expected) << realm << " step " << step;
        }
    }
}

// The groups are narrowed by the high bits of the key: tiles that start exactly at,
// just below and just above such boundaries, and keys on every side of them, at the
// bottom and the top of the key space.
TEST(TileSearch, TilesAtEveryBoundaryOfTheKeySpaceAreCandidates) {
    std::vector<uint64_t> starts{0x000000000001, 0x0FFFFFFFFFFF};
    for (int bit = 40; bit < 48; ++bit) {
        uint64_t edge = uint64_t{1} << bit;
        starts.insert(starts.end(), {edge - 3, edge, edge + 2});
    }
    starts.push_back(0xFFFFFFFFFFFD);
    std::sort(starts.begin(), starts.end());
    std::vector<TileSearch::TileRange> ranges;
    for (uint64_t start : starts) {
        ranges.push_back({start, start + 1, 1, 1});
    }
    TileSearch search;
    search.reset(ranges, "");
    auto inRange = [&](uint64_t key) {
        return std::any_of(starts.begin(), starts.end(),
                           [&](uint64_t start) { return key == start || key == start + 1; });
    };
    auto any = [](uint32_t, uint64_t) { return true; };
    for (uint64_t start : starts) {
        for (uint64_t key = start - 2; key != start + 4; ++key) {
            EXPECT_EQ(find(search, macOfKey(key), any).has_value(), inRange(key))
                << std::hex << key;
        }
    }
    EXPECT_FALSE(find(search, macOfKey(0), any));
    EXPECT_FALSE(find(search, macOfKey(0xFFFFFFFFFFFF), any));
    search.reset({}, "city");
    EXPECT_FALSE(find(search, macOfKey(1), any));
}

}  // namespace
}  // namespace ZEL::Tiles

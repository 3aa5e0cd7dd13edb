#include "api/location_cache.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "support/test_platform.h"

namespace ZEL::API {
namespace {

// APs numbered first..first+count-1.
Core::ApList aps(int first, int count) {
    Core::ApList list;
    for (int i = first; i < first + count; ++i) {
        char text[13];
        std::snprintf(text, sizeof text, "0000000000%02X", i);
        list.push_back(Testing::ap(text, -60));
    }
    return list;
}

Core::ApList join(Core::ApList a, const Core::ApList& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Within the tolerance t (ceil(0.2 x) for a query of x >= 4 APs, else 0) in both
// the size difference and the number of APs in one set only.
TEST(LocationCacheMatch, ToleranceGrowsWithTheQuery) {
    struct Row {
        Core::ApList query, entry;
        bool matches;
    };
    const Row rows[] = {
        {aps(1, 3), aps(1, 3), true},
        {aps(1, 3), aps(1, 4), false},
        {aps(1, 3), join(aps(1, 2), aps(9, 1)), false},
        {aps(1, 4), aps(1, 5), true},                      // t = ceil(0.8) = 1
        {aps(1, 4), join(aps(1, 3), aps(9, 1)), false},    // d = 2
        {aps(1, 10), aps(1, 12), true},                    // t = 2
        {aps(1, 10), join(aps(1, 9), aps(20, 1)), true},   // 9 shared, d = 2
        {aps(1, 10), join(aps(1, 8), aps(20, 1)), false},  // 8 shared, d = 3
        {aps(1, 11), aps(1, 14), true},                    // t = ceil(2.2) = 3
        {aps(1, 11), aps(1, 15), false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(LocationCache::matches(row.query, row.entry), row.matches)
            << row.query.size() << " vs " << row.entry.size();
    }
}

Core::LocationRecord at(double latitude) {
    Core::LocationRecord record;
    record.latitude = latitude;
    return record;
}

TEST(LocationCache, PrunesEntriesOlderThanMaxAgeSeconds) {
    Testing::TestPlatform platform;
    LocationCache cache(100);
    cache.store(aps(1, 3), at(1.0));
    platform.manualClock().advance(100'000);  // exactly the maximum age: kept
    cache.store(aps(10, 3), at(2.0));
    EXPECT_EQ(cache.size(), 2u);
    platform.manualClock().advance(1000);
    cache.store(aps(20, 3), at(3.0));
    Core::LocationRecord out;
    EXPECT_FALSE(cache.find(aps(1, 3), out));
    EXPECT_TRUE(cache.find(aps(10, 3), out));
}

}  // namespace
}  // namespace ZEL::API

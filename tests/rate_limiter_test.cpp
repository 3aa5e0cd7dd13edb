#include "server/rate_limiter.h"

#include <gtest/gtest.h>

namespace ZEL::Server {
namespace {

using std::chrono::steady_clock;

steady_clock::time_point at(double seconds) {
    return steady_clock::time_point{} + std::chrono::duration_cast<steady_clock::duration>(
                                            std::chrono::duration<double>(seconds));
}

TEST(RateLimiter, SpendsTheBurstAndRefillsAtTheRate) {
    RateLimiter limiter({2.0, 3});
    const struct {
        double seconds;
        const char* key;
        bool allowed;
    } rows[] = {
        {0, "a", true},    {0, "a", true},   {0, "a", true},
        {0, "a", false},   {0, "b", true},                       // keys do not share
        {0.4, "a", false}, {0.5, "a", true}, {0.5, "a", false},  // one every half second
        {0.2, "a", false},                                       // time going back gives nothing
        {60, "a", true},   {60, "a", true},  {60, "a", true},
        {60, "a", false},  // no more than the burst
    };
    for (const auto& row : rows) {
        EXPECT_EQ(limiter.allow(row.key, at(row.seconds)), row.allowed)
            << row.key << " at " << row.seconds;
    }
}

TEST(RateLimiter, UnlimitedDefaultBurstAndForgetting) {
    RateLimiter unlimited({0, 0});
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(unlimited.allow("a", at(0)));
    }
    RateLimiter oneSecond({5, 0});  // the burst is one second's worth
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(oneSecond.allow("a", at(0)), i < 5);
    }
    // Keys whose buckets have refilled are forgotten once the map has grown; the
    // sweep at 1,024 keys found none.
    RateLimiter limiter({1, 1});
    for (int i = 0; i < 2047; ++i) {
        limiter.allow(std::to_string(i), at(0));
    }
    EXPECT_EQ(limiter.keysTracked(), 2047u);
    EXPECT_TRUE(limiter.allow("new", at(1)));
    EXPECT_EQ(limiter.keysTracked(), 1u);
}

}  // namespace
}  // namespace ZEL::Server

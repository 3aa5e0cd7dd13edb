#include "server/rate_limiter.h"

#include <gtest/gtest.h>

#include <tuple>

namespace ZEL::Server {
namespace {

std::chrono::steady_clock::time_point at(double seconds) {
    return std::chrono::steady_clock::time_point{} +
           std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::duration<double>(seconds));
}

TEST(RateLimiter, SpendsTheBurstRefillsAtTheRateAndForgetsFullBuckets) {
    RateLimiter limiter({2.0, 3}), oneSecond({5, 0});  // burst 0: one second's worth
    const std::tuple<double, const char*, bool> rows[] =
        {
            {0, "a", true},    {0, "a", true},    {0, "a", true},
            {0, "a", false},   {0, "b", true},    {0.4, "a", false},
            {0.5, "a", true},  {0.5, "a", false},  // one every half second
            {0.2, "a", false},                     // time going back gives nothing
            {60, "a", true},   {60, "a", true},   {60, "a", true},
            {60, "a", false},  // the burst at most
        };
    for (const auto& [seconds, key, allowed] : rows) {
        EXPECT_EQ(limiter.allow(key, at(seconds)), allowed) << seconds;
    }
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(oneSecond.allow("a", at(0)), i < 5);
    }
    RateLimiter forgetting({4, 1});
    for (int i = 0; i < 2047; ++i) {
        forgetting.allow(std::to_string(i), at(0));
    }
    EXPECT_EQ(forgetting.keysTracked(), 2047u);  // the sweep at 1,024 found no full bucket
    forgetting.allow("new", at(0.5));
    EXPECT_EQ(forgetting.keysTracked(), 1u);
}

}  // namespace
}  // namespace ZEL::Server

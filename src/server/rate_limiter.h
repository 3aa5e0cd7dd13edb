// Request-rate limits by key (a client address, an API key, a user): a token
// bucket per key that holds at most `burst` requests and refills at `perSecond`.
//
// Buckets are made on a key's first request and forgotten once they are full
// again, so memory follows the keys active in the last burst/perSecond seconds.
// Threading: allow() may be called from any thread.
#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ZEL::Server {

struct RateLimit {
    double perSecond = 0;  // 0: unlimited
    double burst = 0;      // requests at once; 0: one second's worth (at least 1)
};

class RateLimiter {
  public:
    explicit RateLimiter(RateLimit limit);

    // True when `key` may make one more request at `now`, which it then spends.
    bool allow(const std::string& key, std::chrono::steady_clock::time_point now);
    bool allow(const std::string& key) { return allow(key, std::chrono::steady_clock::now()); }

    size_t keysTracked();

  private:
    struct Bucket {
        double tokens;
        std::chrono::steady_clock::time_point filled;  // when `tokens` was last brought up to date
    };
    // Drops the buckets that have refilled by `now`.
    void forgetFull(std::chrono::steady_clock::time_point now);

    const double perSecond_;
    const double burst_;
    std::mutex mutex_;
    std::unordered_map<std::string, Bucket> buckets_;
    size_t sweepAt_;  // bucket count that triggers the next forgetFull()
};

}  // namespace ZEL::Server

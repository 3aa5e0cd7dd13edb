#include "server/rate_limiter.h"

#include <algorithm>

namespace ZEL::Server {
namespace {

// Buckets kept before the first sweep for full ones; a sweep costs one pass over
// the map, so the next sweep waits until the map has doubled again.
constexpr size_t kFirstSweep = 1024;

}  // namespace

RateLimiter::RateLimiter(RateLimit limit)
    : perSecond_(limit.perSecond),
      burst_(std::max(limit.burst > 0 ? limit.burst : limit.perSecond, 1.0)),
      sweepAt_(kFirstSweep) {}

bool RateLimiter::allow(const std::string& key, std::chrono::steady_clock::time_point now) {
    if (perSecond_ <= 0) {
        return true;
    }
    std::lock_guard lock(mutex_);
    auto [at, made] = buckets_.try_emplace(key, Bucket{burst_, now});
    Bucket& bucket = at->second;
    if (!made) {
        const double elapsed = std::chrono::duration<double>(now - bucket.filled).count();
        bucket.tokens = std::min(burst_, bucket.tokens + std::max(elapsed, 0.0) * perSecond_);
        bucket.filled = std::max(now, bucket.filled);
    }
    const bool allowed = bucket.tokens >= 1.0;
    if (allowed) {
        bucket.tokens -= 1.0;
    }
    if (buckets_.size() >= sweepAt_) {
        forgetFull(now);
    }
    return allowed;
}

void RateLimiter::forgetFull(std::chrono::steady_clock::time_point now) {
    std::erase_if(buckets_, [&](const auto& entry) {
        const double elapsed = std::chrono::duration<double>(now - entry.second.filled).count();
        return entry.second.tokens + elapsed * perSecond_ >= burst_;
    });
    sweepAt_ = std::max(kFirstSweep, buckets_.size() * 2);
}

size_t RateLimiter::keysTracked() {
    std::lock_guard lock(mutex_);
    return buckets_.size();
}

}  // namespace ZEL::Server

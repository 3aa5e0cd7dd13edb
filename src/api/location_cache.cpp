#include "api/location_cache.h"

#include <algorithm>

#include "spi/platform.h"

namespace ZEL::API {

bool LocationCache::matches(const Core::ApList& query, const Core::ApList& entry) {
    const int64_t x = static_cast<int64_t>(query.size());
    const int64_t y = static_cast<int64_t>(entry.size());
    const int64_t tolerance = x >= 4 ? (x + 4) / 5 : 0;  // ceil(x * 0.2)
    if (y < x - tolerance || y > x + tolerance) {
        return false;
    }
    // Every pair of equal MACs lowers the difference count by two.
    int64_t difference = x + y;
    for (const Core::ScannedAP& a : query) {
        for (const Core::ScannedAP& b : entry) {
            if (a.mac == b.mac) {
                difference -= 2;
            }
        }
    }
    return difference <= tolerance;
}

std::deque<LocationCache::Entry>::const_iterator LocationCache::findMatch(
    const Core::ApList& aps) const {
    return std::find_if(entries_.begin(), entries_.end(),
                        [&](const Entry& entry) { return matches(aps, entry.aps); });
}

bool LocationCache::find(const Core::ApList& aps, Core::LocationRecord& out) const {
    auto match = findMatch(aps);
    if (match == entries_.end()) {
        return false;
    }
    out = match->location;
    return true;
}

void LocationCache::store(const Core::ApList& aps, const Core::LocationRecord& location) {
    Entry entry{aps, location, SPI::currentTime()};
    auto match = findMatch(aps);
    if (match != entries_.end()) {
        entries_.erase(match);
    }
    entries_.push_front(std::move(entry));
    while (!entries_.empty() &&
           entries_.front().stored.seconds - entries_.back().stored.seconds > maxAgeSeconds_) {
        entries_.pop_back();
    }
}

}  // namespace ZEL::API

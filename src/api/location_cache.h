// Remembers, for the set of access points heard during a one-shot location, the
// location found for it (or that none was found), so that a repeated set spares a
// server request.
#pragma once

#include <cstdint>
#include <deque>

#include "core/location_record.h"

namespace ZEL::API {

class LocationCache {
  public:
    // Entries older than `maxAgeSeconds` than the newest one are pruned on store.
    explicit LocationCache(uint32_t maxAgeSeconds = 2592000) : maxAgeSeconds_(maxAgeSeconds) {}

    // Copies the location of the newest entry whose AP set matches `aps` into `out`.
    bool find(const Core::ApList& aps, Core::LocationRecord& out) const;

    // Replaces the entry matching `aps` (if any) by a new one at the front, stamped
    // with the current time, then prunes by age. A failed attempt (nap 0) is stored
    // like any other.
    void store(const Core::ApList& aps, const Core::LocationRecord& location);

    size_t size() const { return entries_.size(); }
    void clear() { entries_.clear(); }

    // Two AP sets match when their sizes differ by at most the tolerance t of the
    // query (ceil(0.2 x) for x >= 4 APs, else 0) and so does the number of APs that
    // lie in one set but not the other.
    static bool matches(const Core::ApList& query, const Core::ApList& entry);

  private:
    struct Entry {
        Core::ApList aps;
        Core::LocationRecord location;
        Core::TimeStamp stored;
    };

    std::deque<Entry>::const_iterator findMatch(const Core::ApList& aps) const;

    uint32_t maxAgeSeconds_;
    std::deque<Entry> entries_;  // newest first
};

}  // namespace ZEL::API

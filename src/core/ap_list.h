// The lists of scanned access points that the scan loop and the flows keep.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "core/scanned_ap.h"

namespace ZEL::Core {

// How long an access point heard stays in a recent list (ms): the scan loop's and the
// one-shot flow's lists, and the oldest entry of a scan that an adapter reports.
inline constexpr uint32_t kRecentMaxAgeMs = 30000;

// Access points heard recently, each with the time it was heard, oldest first, and
// none older than the maximum age after a merge.
class RecentApList {
  public:
    struct Entry {
        ScannedAP ap;
        Core::TimeStamp heard;
    };

    explicit RecentApList(uint32_t maxAgeMs = kRecentMaxAgeMs) : maxAgeMs_(maxAgeMs) {}

    // Stamps each AP of `fresh` with `now`, inserts it at its place in
    // time order (after entries of an earlier time, before those of a later one),
    // then drops the entries older than the maximum age.
    void merge(const ApList& fresh, TimeStamp now);

    // The APs in time order, each carrying the time it was heard.
    ApList aps() const;

    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    const std::deque<Entry>& entries() const { return entries_; }
    uint32_t maxAgeMs() const { return maxAgeMs_; }

  private:
    uint32_t maxAgeMs_;
    std::deque<Entry> entries_;
};

// Sorts `list` by MAC in printed order and keeps one AP per MAC. The list leaves in
// MAC order; which of two equal MACs survives is not fixed.
void unique(ApList& list);

// Moves from `fresh` into `cached` every AP that `recent` holds with an age at `now`
// of at most 5000 ms. The walk over `recent` goes from the newest entry and stops at the
// first one older than that.
void filter(const RecentApList& recent, TimeStamp now, ApList& fresh, ApList& cached);

// "MAC, rss" per AP, joined by "; ".
std::string toText(const ApList& list);
std::string toText(const RecentApList& list);

// The age (ms) up to which an AP heard before counts as already known in a cycle.
inline constexpr int32_t kRecentlyHeardMs = 5000;

}  // namespace ZEL::Core

// The process-wide position histories of the on-device determination.
#pragma once

#include <cstddef>
#include <deque>

#include "core/location_record.h"

namespace ZEL::Local {

// Location records, newest first, at most `kCapacity` of them: adding to a full
// history drops the oldest. Only positions, counts, speeds, bearings and times are
// kept; the AP lists of an added record are not.
class LocationHistory {
  public:
    static constexpr size_t kCapacity = 39;

    void add(const Core::LocationRecord& record);
    void clear() { records_.clear(); }

    bool empty() const { return records_.empty(); }
    size_t size() const { return records_.size(); }
    // Index 0 is the newest record.
    const Core::LocationRecord& operator[](size_t index) const { return records_[index]; }
    const Core::LocationRecord& newest() const { return records_.front(); }

    auto begin() const { return records_.begin(); }
    auto end() const { return records_.end(); }

  private:
    std::deque<Core::LocationRecord> records_;
};

// The raw estimate of every determination call that got past its early refusal.
LocationHistory& rawHistory();
// The record delivered by every such call, including the failed ones.
LocationHistory& resultHistory();

// Empties both histories. The library itself never calls this (ages make old
// records irrelevant); tests and replay tools use it to start from a clean slate.
void resetLocationHistoriesForTesting();

}  // namespace ZEL::Local

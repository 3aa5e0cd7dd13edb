// The on-device determination: a position from one scan and the local tile files,
// smoothed over the recent calls of the whole process.
#pragma once

#include <string>
#include <vector>

#include "api/location_determination.h"
#include "local/stored_ap_lookup.h"
#include "zelapi.h"

namespace log4cpp {
class Category;
}

namespace ZEL::API {

// What every local determination holds: its log category, the tile file paths
// the caller set and one open reader per path that opened for the current call.
class LocalDeterminationBase : public LocationDetermination {
  public:
    // Replaces the path list with the strings of `paths`, a null-terminated array of
    // null-terminated strings; a null array or a null first entry empties it.
    // Returns 0.
    int setLocalFilesPath(const char** paths);

    // Closes the readers held, then opens one per path, in path order, for the
    // realm of `authentication` (a null realm is the empty realm). A file that does
    // not open is skipped (the reader logs why). Returns 0 in every case.
    int prepare(const ZEL_Authentication& authentication);

    // Closes every reader held.
    void release();

    const std::vector<std::string>& localFilesPath() const { return paths_; }
    size_t openReaderCount() const { return readers_.size(); }

  protected:
    explicit LocalDeterminationBase(const char* categoryName);

    log4cpp::Category& log_;
    std::vector<std::string> paths_;
    ReaderList readers_;
};

class LocationDeterminationPrivate final : public LocalDeterminationBase {
  public:
    LocationDeterminationPrivate();

    // Returns 0 with a position in `out`, or 6. `out` is expected freshly
    // initialised: the smoothed position and bearing are added onto what it holds.
    // `previous` is not read. Calls must not overlap: the histories are
    // process-wide and unlocked.
    int determine(const LocationRecord* previous, const ApList& aps, LocationRecord& out) override;

    // The APs heard in the last 21 calls, in order of first appearance.
    const std::vector<LocalApEntry>& trackedAps() const { return trackedAps_; }

  private:
    // Fills the known and unknown AP lists of `out` in scan order and returns an
    // entry for each known AP heard.
    std::vector<LocalApEntry> splitScan(const ApList& aps, const StoredApMap& known,
                                        LocationRecord& out) const;
    // Speed of this call into `raw` and `out`, then the raw and smoothed bearing.
    void estimateMotion(LocationRecord& raw, LocationRecord& out) const;
    // The raw position, or its weighted mean with recent raw positions, into `out`.
    void smoothPosition(const LocationRecord& raw, LocationRecord& out) const;
    // Estimates the raw bearing into `raw` and the smoothed one into `out`.
    void smoothBearing(LocationRecord& raw, LocationRecord& out) const;

    std::vector<LocalApEntry> trackedAps_;
};

}  // namespace ZEL::API

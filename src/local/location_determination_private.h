// The on-device determination: a position from one scan and the local tile files,
// smoothed over the recent calls of the whole process.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/location_determination.h"
#include "local/stored_ap_lookup.h"

namespace ZEL::SPI {
class Logger;
}

namespace ZEL::Local {

// What every local determination holds: its log category, the tile file paths
// the caller set and one open reader per path that opened for the current call.
class LocalDeterminationBase : public Core::LocationDetermination {
  public:
    // Replaces the path list.
    void setLocalFilesPath(std::vector<std::string> paths) { paths_ = std::move(paths); }

    // Closes the readers held, then opens one per path, in path order, for the
    // realm. A file that does not open is skipped (the reader logs why).
    void prepare(std::string_view realm);

    // Closes every reader held.
    void release();

    const std::vector<std::string>& localFilesPath() const { return paths_; }
    size_t openReaderCount() const { return readers_.size(); }

  protected:
    explicit LocalDeterminationBase(const char* categoryName);

    SPI::Logger& log_;
    std::vector<std::string> paths_;
    ReaderList readers_;
};

class LocationDeterminationPrivate final : public LocalDeterminationBase {
  public:
    LocationDeterminationPrivate();

    // Returns kOk with a position in `out`, or kCannotDetermine. `out` is expected freshly
    // initialised: the smoothed position and bearing are added onto what it holds.
    // `previous` is not read. Calls must not overlap: the histories are
    // process-wide and unlocked.
    Core::ResultCode determine(const Core::LocationRecord* previous, const Core::ApList& aps,
                               Core::LocationRecord& out) override;

    // The APs heard in the last 21 calls, in order of first appearance.
    const std::vector<LocalApEntry>& trackedAps() const { return trackedAps_; }

  private:
    // Fills the known and unknown AP lists of `out` in scan order and returns an
    // entry for each known AP heard.
    std::vector<LocalApEntry> splitScan(const Core::ApList& aps, const StoredApMap& known,
                                        Core::LocationRecord& out) const;
    // Speed of this call into `raw` and `out`, then the raw and smoothed bearing.
    void estimateMotion(Core::LocationRecord& raw, Core::LocationRecord& out) const;
    // The raw position, or its weighted mean with recent raw positions, into `out`.
    void smoothPosition(const Core::LocationRecord& raw, Core::LocationRecord& out) const;
    // Estimates the raw bearing into `raw` and the smoothed one into `out`.
    void smoothBearing(Core::LocationRecord& raw, Core::LocationRecord& out) const;

    std::vector<LocalApEntry> trackedAps_;
};

}  // namespace ZEL::Local

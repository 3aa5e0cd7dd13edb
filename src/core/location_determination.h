// The interface both determinations offer to the one-shot and periodic flows.
#pragma once

#include "core/location_record.h"
#include "core/result_code.h"

namespace ZEL::Core {

class LocationDetermination {
  public:
    virtual ~LocationDetermination() = default;

    // Computes a position from `aps` into `out` (which the caller passes freshly
    // initialised). `previous` is the caller's last location, or null; it is not
    // read by the on-device determination. kCannotDetermine when no position can
    // be made.
    virtual ResultCode determine(const LocationRecord* previous, const ApList& aps,
                                 LocationRecord& out) = 0;
};

}  // namespace ZEL::Core

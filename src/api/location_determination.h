// The interface both determinations offer to the one-shot and periodic flows.
#pragma once

#include "api/location_record.h"

namespace ZEL::API {

class LocationDetermination {
  public:
    virtual ~LocationDetermination() = default;

    // Computes a position from `aps` into `out` (which the caller passes freshly
    // initialised). `previous` is the caller's last location, or null; it is not
    // read by the on-device determination. Returns 0, or a ZEL_ error code
    // (6 when no position can be made).
    virtual int determine(const LocationRecord* previous, const ApList& aps,
                          LocationRecord& out) = 0;
};

}  // namespace ZEL::API

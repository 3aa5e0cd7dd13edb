// Speed and bearing of the device from its recent positions.
#pragma once

#include <vector>

#include "core/location_record.h"
#include "local/location_history.h"
#include "local/stored_ap_lookup.h"

namespace ZEL::Local {

// Radians to degrees, the counterpart of kRadiansPerDegree used for bearings.
inline constexpr double kDegreesPerRadian = 57.29577957855229;

// Speed in km/h of the device at `raw` (this call's estimate) from up to four
// earlier positions of `results`; 0 when they are too few or too old, or when the
// signals of the tracked APs are steady (the device stands still).
double estimateSpeed(const Core::LocationRecord& raw, const LocationHistory& results,
                     const std::vector<LocalApEntry>& tracked);

// Bearing in degrees (0 = none) towards `raw` from up to twenty earlier positions
// of `results`; 0 when the raw position is 0,0, a recent result stood still, or
// the positions are too few or too old.
double estimateBearing(const Core::LocationRecord& raw, const LocationHistory& results);

}  // namespace ZEL::Local

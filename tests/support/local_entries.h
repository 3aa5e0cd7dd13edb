// Hand-made access-point entries and records around a fixed point, for the tests of
// the on-device estimates.
#pragma once

#include <cstdint>
#include <string>

#include "core/location_record.h"
#include "local/stored_ap_lookup.h"

namespace ZEL::Testing {

// 47 N 8 E: at this latitude the distance of a point to itself is exactly 0.
inline constexpr double kBaseLatitude = 47.0;
inline constexpr double kBaseLongitude = 8.0;
// Metres per degree of latitude with the estimator's own factors.
inline constexpr double kMetresPerDegree = 0.0174532925 * 6372800.0;

double latitudeAt(double northMetres);
double longitudeAt(double eastMetres);

// The MAC 0000000000NN (printed form) for small numbers.
Core::MacAddress testMac(int number);

// An entry heard now at `rss`, placed `north`/`east` metres from the base point.
Local::LocalApEntry entryAt(int number, double northMetres, double eastMetres, int32_t rss = -60,
                            uint32_t quality = 50, double signalExponent = 0.5);

// A record at the given offset, time and speed.
Core::LocationRecord recordAt(double northMetres, double eastMetres, uint64_t timeMs,
                              double speed = 0.0, double bearing = 0.0);

// The point `metres` away from (latitude, longitude) in the direction `bearing`
// (degrees clockwise from north), on a sphere with the estimator's radius.
void destination(double latitude, double longitude, double bearing, double metres,
                 double& outLatitude, double& outLongitude);

}  // namespace ZEL::Testing

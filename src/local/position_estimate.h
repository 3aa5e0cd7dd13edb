// The position of one scan from the stored positions of the APs heard, and its
// horizontal position error.
#pragma once

#include <vector>

#include "core/location_record.h"
#include "local/location_history.h"
#include "local/stored_ap_lookup.h"

namespace ZEL::SPI {
class Logger;
}

namespace ZEL::Local {

// Degrees to radians. Deliberately this truncated factor, not the full pi/180:
// every distance, speed and bearing is computed with it.
inline constexpr double kRadiansPerDegree = 0.0174532925;

// Great-circle distance in metres between two positions in degrees, on a sphere of
// radius 6372800 m; 0 where rounding takes the arc cosine out of its domain.
double greatCircleDistance(double latitudeA, double longitudeA, double latitudeB,
                           double longitudeB);

// Speed (km/h) of the reference point at or above which the RSS of an AP is no
// longer averaged over its previous scans.
inline constexpr double kRssAveragingSpeedLimit = 16.095284081764042;

// Estimates the position of this call into `raw`, whose time stamp is this call's
// time and whose position, count, HPE, speed and bearing are 0. Picks a reference
// point (a recent position of `history`, else the lower per-axis median of the
// entries), removes from `entries` the APs farther from it than the gate radius and
// writes the signal-weighted centroid of the rest and their count. With no AP
// left, copies the newest history record under 20000 ms old with a position, or
// leaves the position 0,0. `tracked` supplies the previous RSS of each AP.
void estimatePosition(std::vector<LocalApEntry>& entries, Core::LocationRecord& raw,
                      const LocationHistory& history, const std::vector<LocalApEntry>& tracked,
                      SPI::Logger& log);

// The point the gate is centred on: a recent position or the APs' median.
struct Reference {
    double latitude;
    double longitude;
    double speed;  // km/h
    Core::TimeStamp time;
};

// Distance in metres from the reference to an entry's stored position.
double distanceFrom(const Reference& reference, const LocalApEntry& entry);

// The gate radius in metres for a reference `Core::ageMs` old (counted as 0 beyond
// 20000 ms): 75 m, widened to 150 m and then to 300 m while fewer than three
// entries lie strictly inside, each plus 1 m per 100 ms of age.
double gateRadius(const std::vector<LocalApEntry>& entries, const Reference& reference,
                  int32_t ageMs);
// Entries strictly closer than `radius`.
size_t countWithin(const std::vector<LocalApEntry>& entries, const Reference& reference,
                   double radius);
// Removes the entries strictly farther than `radius`, keeping the order of the rest:
// an entry at exactly the radius stays although countWithin does not count it.
void removeBeyond(std::vector<LocalApEntry>& entries, const Reference& reference, double radius);

// The horizontal position error in metres (at least 1) of a centroid of `entries`
// (as estimatePosition left them); 150 when there is none.
double estimateHpe(const std::vector<LocalApEntry>& entries);

// The weight factor of a stored quality figure: 0.001 below 18, 1 above 30, on a
// logarithmic ramp between.
double qualityFactor(uint32_t quality);

}  // namespace ZEL::Local

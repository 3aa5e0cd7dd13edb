// A simulated walk (or drive) through a simulated city: where the device truly is
// at each scan, and what it hears there.
//
// The device follows the streets of the city's grid, turning at random at each
// crossing (never back unless it must), at the given speed with some variation
// per street and now and then a stop at a crossing. Each period it scans: every AP
// within reach gets an RSS from a log-distance path-loss model (the AP's own power
// and exponent, radioOf) with 4 dB of log-normal shadowing; it is heard when that
// is at least -90 dBm, and even then missed one time in ten. About one AP in five
// on the air is not in the database (APs installed after the survey).
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "local/scan_recording.h"
#include "sim/simulated_city.h"

namespace ZEL::Sim {

struct WalkOptions {
    uint64_t seed = 1;
    double minutes = 5.0;
    double speedKmh = 5.0;
    uint32_t periodMs = 1000;
    uint64_t startMs = 1'750'000'000'000ull;  // time of the first scan
};

// Where the device truly was at one scan.
struct TruthPoint {
    uint64_t timeMs = 0;
    double latitude = 0.0;
    double longitude = 0.0;
    double speedKmh = 0.0;
};

struct SimulatedWalk {
    std::vector<Local::RecordedScan> scans;
    std::vector<TruthPoint> truth;  // one per scan, same order
    std::string error;              // why there is no walk (a city without a street)
};

SimulatedWalk generateWalk(const std::vector<CityAp>& city, const WalkOptions& options);

// CSV with the header "t_ms,latitude,longitude,speed_kmh".
void writeTruthCsv(std::ostream& out, const std::vector<TruthPoint>& truth);
// Reads that CSV; a malformed row is reported through `errors` as "line N: why"
// and skipped.
std::vector<TruthPoint> readTruthCsv(std::istream& in, std::vector<std::string>& errors);

}  // namespace ZEL::Sim

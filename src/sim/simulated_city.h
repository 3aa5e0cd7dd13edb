// A synthetic city for demos, sample data and accuracy measurements: access points
// clustered in buildings along a street grid, the database's view of them, and the
// radio each one really has.
//
// The database position of an AP is its true position moved by a survey error
// that depends only on its MAC and quality (larger for low quality), and its true
// transmit power and path-loss exponent follow from its MAC and stored signal
// exponent. So the city CSV alone, with no hidden columns, fixes the whole radio
// world a simulated walk moves through.
#pragma once

#include <cstdint>
#include <istream>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "core/scanned_ap.h"

namespace ZEL::Sim {

// Every city is laid out around this point on a grid of streets this far apart.
inline constexpr double kCentreLatitude = 46.0;
inline constexpr double kCentreLongitude = 9.0;
inline constexpr double kStreetPitchMetres = 100.0;

// One access point as the database knows it (a row of the city CSV).
struct CityAp {
    Core::MacAddress mac{};
    double latitude = 0.0;  // degrees
    double longitude = 0.0;
    uint32_t quality = 50;
    double signalExponent = 0.25;
};

// What an AP really is on the air.
struct ApRadio {
    double northMetres = 0.0;  // true position relative to the city centre
    double eastMetres = 0.0;
    double powerAt1mDbm = -35.0;
    double pathLossExponent = 3.0;
};

// A flat frame in metres around the city centre (good to a few centimetres over a
// few kilometres).
struct LocalFrame {
    static double north(double latitude);
    static double east(double longitude);
    static double latitude(double northMetres);
    static double longitude(double eastMetres);
};

// Deterministic randomness: the same seed gives the same city and walk everywhere
// (the engine is fully specified; the distributions are our own).
class Random {
  public:
    explicit Random(uint64_t seed) : engine_(seed) {}
    double uniform();  // [0, 1)
    double uniform(double low, double high) { return low + (high - low) * uniform(); }
    double normal(double mean, double deviation);
    uint64_t bits() { return engine_(); }

  private:
    std::mt19937_64 engine_;
};

struct CityOptions {
    uint64_t seed = 1;
    size_t aps = 5000;
    double sizeKm = 2.0;  // side of the square city, rounded to an even number of blocks
};

// `options.aps` distinct APs in buildings along the streets of a square city.
std::vector<CityAp> generateCity(const CityOptions& options);

// The true radio of `ap` (see the file comment).
ApRadio radioOf(const CityAp& ap);

// CSV with the header "mac,latitude,longitude,quality,signal_exponent".
void writeCityCsv(std::ostream& out, const std::vector<CityAp>& aps);

// Reads that CSV; quality and signal_exponent may be missing (50 and 0.25). A
// malformed row is reported through `errors` as "line N: why" and skipped.
std::vector<CityAp> readCityCsv(std::istream& in, std::vector<std::string>& errors);

}  // namespace ZEL::Sim

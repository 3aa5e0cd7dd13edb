#include "sim/simulated_city.h"

#include <cmath>
#include <cstdio>
#include <set>

#include "core/number_text.h"
#include "core/text_reader.h"

namespace ZEL::Sim {
namespace {

constexpr double kMetresPerDegree = 6372800.0 * 3.14159265358979323846 / 180.0;
const double kCosCentre = std::cos(kCentreLatitude * 3.14159265358979323846 / 180.0);

constexpr double kStreetHalfWidth = 8.0;  // metres from the centre line to the kerb
constexpr int kMaxApsPerBuilding = 8;

// splitmix64: a well-mixed 64-bit value from any 64-bit input.
uint64_t mix(uint64_t value) {
    value += 0x9E3779B97F4A7C15ull;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
    return value ^ (value >> 31);
}

uint64_t macBits(const Core::MacAddress& mac) {
    uint64_t bits = 0;
    for (uint8_t octet : mac) {
        bits = bits << 8 | octet;
    }
    return bits;
}

// A value in [0, 1) from `mac` and a salt.
double macUniform(const Core::MacAddress& mac, uint64_t salt) {
    return static_cast<double>(mix(macBits(mac) ^ mix(salt)) >> 11) * 0x1.0p-53;
}

// The survey error of the database position: a few metres for good APs, tens of
// metres for poor ones.
void surveyError(const CityAp& ap, double& north, double& east) {
    const double metres =
        ap.quality > 30 ? 1.0 + 5.0 * macUniform(ap.mac, 1) : 15.0 + 30.0 * macUniform(ap.mac, 1);
    const double angle = 2.0 * 3.14159265358979323846 * macUniform(ap.mac, 2);
    north = metres * std::cos(angle);
    east = metres * std::sin(angle);
}

Core::MacAddress randomMac(Random& random) {
    uint64_t bits = random.bits();
    Core::MacAddress mac{};
    for (auto& octet : mac) {
        octet = static_cast<uint8_t>(bits);
        bits >>= 8;
    }
    mac[5] = static_cast<uint8_t>((mac[5] & 0xF0) | 0x02);  // locally administered, unicast
    return mac;
}

// A building's position: along one side of a random block, set back from the kerb.
void pickBuilding(Random& random, int blocks, double& north, double& east) {
    const int blockNorth = static_cast<int>(random.uniform() * blocks);
    const int blockEast = static_cast<int>(random.uniform() * blocks);
    const double half = blocks * kStreetPitchMetres / 2.0;
    const double south = blockNorth * kStreetPitchMetres - half + kStreetHalfWidth;
    const double west = blockEast * kStreetPitchMetres - half + kStreetHalfWidth;
    const double inner = kStreetPitchMetres - 2 * kStreetHalfWidth;
    const double along = random.uniform(6.0, inner - 6.0);
    const double setback = random.uniform(4.0, 18.0);
    switch (static_cast<int>(random.uniform() * 4)) {
        case 0:
            north = south + setback, east = west + along;
            break;
        case 1:
            north = south + inner - setback, east = west + along;
            break;
        case 2:
            north = south + along, east = west + setback;
            break;
        default:
            north = south + along, east = west + inner - setback;
            break;
    }
}

}  // namespace

double LocalFrame::north(double latitude) {
    return (latitude - kCentreLatitude) * kMetresPerDegree;
}
double LocalFrame::east(double longitude) {
    return (longitude - kCentreLongitude) * kMetresPerDegree * kCosCentre;
}
double LocalFrame::latitude(double northMetres) {
    return kCentreLatitude + northMetres / kMetresPerDegree;
}
double LocalFrame::longitude(double eastMetres) {
    return kCentreLongitude + eastMetres / (kMetresPerDegree * kCosCentre);
}

double Random::uniform() {
    return static_cast<double>(engine_() >> 11) * 0x1.0p-53;
}

double Random::normal(double mean, double deviation) {
    // Box-Muller; 1 - u keeps the logarithm finite.
    const double radius = std::sqrt(-2.0 * std::log(1.0 - uniform()));
    return mean + deviation * radius * std::cos(2.0 * 3.14159265358979323846 * uniform());
}

std::vector<CityAp> generateCity(const CityOptions& options) {
    Random random(options.seed);
    // An even number of blocks puts the streets on multiples of the pitch from the
    // centre, where a walk expects them.
    const int blocks = 2 * std::max(1, static_cast<int>(std::lround(options.sizeKm * 1000.0 /
                                                                    kStreetPitchMetres / 2.0)));
    std::set<Core::MacAddress> used;
    std::vector<CityAp> city;
    city.reserve(options.aps);
    while (city.size() < options.aps) {
        double buildingNorth = 0.0;
        double buildingEast = 0.0;
        pickBuilding(random, blocks, buildingNorth, buildingEast);
        const int count = 1 + static_cast<int>(random.uniform() * kMaxApsPerBuilding);
        for (int i = 0; i < count && city.size() < options.aps; ++i) {
            CityAp ap;
            do {
                ap.mac = randomMac(random);
            } while (!used.insert(ap.mac).second);
            ap.quality = random.uniform() < 0.15
                             ? 18 + static_cast<uint32_t>(random.uniform() * 13)
                             : 31 + static_cast<uint32_t>(random.uniform() * 70);
            ap.signalExponent = std::round(10000.0 / random.uniform(2.5, 4.0)) / 10000.0;
            const double trueNorth = buildingNorth + random.normal(0.0, 4.0);
            const double trueEast = buildingEast + random.normal(0.0, 4.0);
            double errorNorth = 0.0;
            double errorEast = 0.0;
            surveyError(ap, errorNorth, errorEast);
            ap.latitude = LocalFrame::latitude(trueNorth + errorNorth);
            ap.longitude = LocalFrame::longitude(trueEast + errorEast);
            city.push_back(ap);
        }
    }
    return city;
}

ApRadio radioOf(const CityAp& ap) {
    double errorNorth = 0.0;
    double errorEast = 0.0;
    surveyError(ap, errorNorth, errorEast);
    ApRadio radio;
    radio.northMetres = LocalFrame::north(ap.latitude) - errorNorth;
    radio.eastMetres = LocalFrame::east(ap.longitude) - errorEast;
    // Transmit power and the walls between the AP and the street.
    radio.powerAt1mDbm = -30.0 - 10.0 * macUniform(ap.mac, 3) - 10.0 * macUniform(ap.mac, 4);
    radio.pathLossExponent = ap.signalExponent > 0.0 ? 1.0 / ap.signalExponent : 3.0;
    return radio;
}

void writeCityCsv(std::ostream& out, const std::vector<CityAp>& aps) {
    out << "mac,latitude,longitude,quality,signal_exponent\n";
    char line[128];
    for (const CityAp& ap : aps) {
        std::snprintf(line, sizeof line, "%s,%.8f,%.8f,%u,%.4f\n", Core::macText(ap.mac).c_str(),
                      ap.latitude, ap.longitude, ap.quality, ap.signalExponent);
        out << line;
    }
}

std::vector<CityAp> readCityCsv(std::istream& in, std::vector<std::string>& errors) {
    std::vector<CityAp> aps;
    Core::TextReader reader(in);
    Core::CsvRecord record;
    while (reader.nextRecord(record)) {
        const std::vector<std::string>& fields = record.fields;
        if (reader.lineNumber() == 1 && !fields.empty() && fields[0] == "mac") {
            continue;
        }
        CityAp ap;
        std::string why;
        auto mac = fields.size() >= 3 ? Core::parseMacText(fields[0]) : std::nullopt;
        if (!record.error.empty()) {
            why = record.error;
        } else if (fields.size() < 3 || fields.size() > 5) {
            why = "expected 3 to 5 fields";
        } else if (!mac) {
            why = "mac is not 12 hex digits";
        } else if (!Core::parseDoubleIn(fields[1], -90.0, 90.0, ap.latitude) ||
                   !Core::parseDoubleIn(fields[2], -180.0, 180.0, ap.longitude)) {
            why = "latitude or longitude is not a number in range";
        } else if (fields.size() >= 4 && !Core::parseUnsigned(fields[3], ap.quality)) {
            why = "quality is not an unsigned integer";
        } else if (fields.size() >= 5 &&
                   !Core::parseDoubleIn(fields[4], 0.0, 10.0, ap.signalExponent)) {
            why = "signal_exponent is not a number in 0..10";
        }
        if (!why.empty()) {
            errors.push_back(reader.lineMessage(why));
            continue;
        }
        ap.mac = *mac;
        aps.push_back(ap);
    }
    return aps;
}

}  // namespace ZEL::Sim

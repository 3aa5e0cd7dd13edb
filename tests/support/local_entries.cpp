#include "support/local_entries.h"

#include <cmath>

namespace ZEL::Testing {

double latitudeAt(double northMetres) {
    return kBaseLatitude + northMetres / kMetresPerDegree;
}

double longitudeAt(double eastMetres) {
    return kBaseLongitude +
           eastMetres / (kMetresPerDegree * std::cos(kBaseLatitude * 0.0174532925));
}

Core::MacAddress testMac(int number) {
    Core::MacAddress mac{};
    mac[0] = static_cast<uint8_t>(number);
    mac[1] = static_cast<uint8_t>(number >> 8);
    return mac;
}

Local::LocalApEntry entryAt(int number, double northMetres, double eastMetres, int32_t rss,
                            uint32_t quality, double signalExponent) {
    Local::LocalApEntry entry;
    entry.mac = testMac(number);
    entry.latitude = latitudeAt(northMetres);
    entry.longitude = longitudeAt(eastMetres);
    entry.quality = quality;
    entry.signalExponent = signalExponent;
    entry.rss[0] = rss;
    return entry;
}

Core::LocationRecord recordAt(double northMetres, double eastMetres, uint64_t timeMs, double speed,
                              double bearing) {
    Core::LocationRecord record;
    record.latitude = latitudeAt(northMetres);
    record.longitude = longitudeAt(eastMetres);
    record.time = Core::TimeStamp::fromMilliseconds(timeMs);
    record.speed = speed;
    record.bearing = bearing;
    return record;
}

void destination(double latitude, double longitude, double bearing, double metres,
                 double& outLatitude, double& outLongitude) {
    const double radians = 0.0174532925;
    const double phi1 = latitude * radians;
    const double lambda1 = longitude * radians;
    const double theta = bearing * radians;
    const double delta = metres / 6372800.0;
    const double phi2 = std::asin(std::sin(phi1) * std::cos(delta) +
                                  std::cos(phi1) * std::sin(delta) * std::cos(theta));
    const double lambda2 = lambda1 + std::atan2(std::sin(theta) * std::sin(delta) * std::cos(phi1),
                                                std::cos(delta) - std::sin(phi1) * std::sin(phi2));
    outLatitude = phi2 / radians;
    outLongitude = lambda2 / radians;
}

}  // namespace ZEL::Testing

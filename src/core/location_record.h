// The records that carry a position through the library, and their caller forms.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/scanned_ap.h"
#include "core/time_stamp.h"

namespace ZEL::Core {

// Street-address lookup levels as the caller asks for them; any other value is
// passed to the server unchecked.
inline constexpr int kNoStreetAddress = 0;
inline constexpr int kLimitedStreetAddress = 1;
inline constexpr int kFullStreetAddress = 2;

struct StreetAddress {
    std::string streetNumber;
    std::vector<std::string> addressLines;  // in response order
    std::string city;
    std::string postalCode;
    std::string county;
    std::string province;
    std::string region;
    std::string stateCode;  // at most 3 characters reach the caller
    std::string state;
    std::string country;
    std::string countryCode;  // at most 3 characters reach the caller

    bool empty() const;
    friend bool operator==(const StreetAddress&, const StreetAddress&) = default;
};

// What every determination fills and what the cache and the flows hold. A new
// record has every number 0, every string empty and both AP lists empty.
struct LocationRecord {
    double latitude = 0.0;   // degrees
    double longitude = 0.0;  // degrees
    double hpe = 0.0;        // horizontal position error, metres
    uint16_t nap = 0;        // access points used
    double speed = 0.0;      // km/h; -1.0 when unknown (a server's answer)
    double bearing = 0.0;    // degrees; 0 when unknown
    Core::TimeStamp time{};  // when the position was determined
    StreetAddress streetAddress;
    ApList knownAps;    // scanned APs the determination could place
    ApList unknownAps;  // scanned APs it could not place
};

// A position from the server's view of the device's IP address.
struct IpLocationRecord {
    std::string ip;
    double latitude = 0.0;
    double longitude = 0.0;
    StreetAddress streetAddress;
};

}  // namespace ZEL::Core

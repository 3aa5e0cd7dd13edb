// The JSON geolocate protocol as the library speaks it: the request bodies it
// posts and the reading of the answers.
//
// Requests: {"considerIp":false,"fallbacks":{"ipf":false,"lacf":false},
// "wifiAccessPoints":[{"macAddress":"aa:bb:cc:dd:ee:ff","signalStrength":-70,
// "age":1200},...]} for a scan (age: milliseconds since the access point was
// heard), {"considerIp":true} for the device's address.
// Answers: {"location":{"lat":..,"lng":..},"accuracy":..} (metres), optionally
// "fallback":"..." when the service answered from something other than the
// access points. A latitude, longitude or accuracy that is missing, not a finite
// number or out of range makes the answer unusable.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/location_record.h"
#include "core/result_code.h"

namespace ZEL::Remote {

// The access points that may be sent: all but those whose SSID ends in "_nomap",
// the opt-out their owners chose.
Core::ApList sendableAccessPoints(const Core::ApList& aps);

std::string makeGeolocateRequest(const Core::ApList& aps, Core::TimeStamp now);
std::string makeIpGeolocateRequest();

// Fills latitude, longitude and hpe from `text`, nap with `sent` (0 for a fallback
// answer: the access points did not place it), speed -1 and bearing 0;
// kCannotDetermine when the answer carries no usable location.
Core::ResultCode parseGeolocateAnswer(std::string_view text, uint16_t sent,
                                      Core::LocationRecord& location);
// The same for an address question; the answer names no IP address.
Core::ResultCode parseIpGeolocateAnswer(std::string_view text, Core::IpLocationRecord& location);

}  // namespace ZEL::Remote

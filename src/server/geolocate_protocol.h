// The JSON geolocate protocol as the server speaks it on POST /v1/geolocate:
// reading the request body (optionally gzip-compressed) and writing the answers.
//
// Request fields read: wifiAccessPoints (objects with macAddress, signalStrength
// in dBm, age in ms, ssid; channel, frequency and signalToNoiseRatio are checked
// to be numbers and not used), considerIp (default true) and fallbacks.ipf
// (default true). cellTowers, bluetoothBeacons and every other field are accepted
// and ignored. An empty body and `{}` both ask for the caller's address position.
// Everything that does not read is refused with a reason naming the field.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/location_record.h"
#include "core/scanned_ap.h"

namespace ZEL::Server {

struct GeolocateRequest {
    // In request order; `_nomap` access points already dropped. Each time stamp is
    // `now` less the access point's age.
    Core::ApList accessPoints;
    bool considerIp = true;
    bool ipFallback = true;  // fallbacks.ipf
};

struct GeolocateRead {
    std::optional<GeolocateRequest> request;
    std::string error;  // why not, when there is no request
};

// Deepest nesting of arrays and objects a request may use.
inline constexpr int kMaxGeolocateDepth = 8;

// Reads a JSON request body; more than `maxAccessPoints` access points (counted
// before the `_nomap` ones are dropped) are refused.
GeolocateRead readGeolocateRequest(std::string_view body, size_t maxAccessPoints,
                                   Core::TimeStamp now);

// Inflates a gzip (or zlib) stream into `out`; false with `error` set when the
// stream is damaged, truncated, or inflates to more than `maxBytes`.
bool inflateBody(std::string_view compressed, size_t maxBytes, std::string& out,
                 std::string& error);

// {"location":{"lat":..,"lng":..},"accuracy":..}, with "fallback":"ipf" when
// `ipFallback`.
std::string geolocateAnswer(double latitude, double longitude, double accuracy, bool ipFallback);

// The error document: {"error":{"errors":[{"domain":..,"reason":..,"message":..}],
// "code":STATUS,"message":..}}.
std::string geolocateError(int status, std::string_view domain, std::string_view reason,
                           std::string_view message);

}  // namespace ZEL::Server

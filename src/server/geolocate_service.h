// What LocationService::geolocate takes: one POST /v1/geolocate as the HTTP layer
// received it.
//
// Statuses, with the error documents of geolocate_protocol.h: 200 with a position;
// 400 parseError for a body that does not read (also a damaged gzip body or one
// inflating beyond maxInflatedBytes); 400 keyInvalid for a missing, unknown or
// disabled key, or one of another realm (no key needed with --open); 404 notFound
// when neither the access points nor, where allowed, the address give a position;
// 500 backendError when the key store fails.
// A Wi-Fi position needs at least two known access points, so that one network
// alone cannot be followed; its accuracy is the estimator's error scaled so that
// the truth lies within it for about two answers in three. An address position
// carries "fallback":"ipf".
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace ZEL::Server {

struct GeolocateCall {
    std::string_view body;
    bool gzip = false;     // Content-Encoding: gzip
    std::string_view key;  // the ?key= parameter as sent, empty when absent
    std::string clientAddress;
    size_t maxInflatedBytes = 1 << 20;
};

// Accuracy, metres, of a position from the address ranges: a town's extent.
inline constexpr double kIpAccuracy = 25'000.0;
// The answered accuracy, metres, for the estimator's error `hpe`: scaled, and never
// under a floor, since the estimator's figure shrinks to 1 m where many access
// points are heard while the real error does not. Fitted on the real data sets by
// bench/geolocate_calibration_bench.cpp to put the truth within it for 62-74% of
// the answers of each.
inline double calibratedAccuracy(double hpe) {
    constexpr double kScale = 1.7;
    constexpr double kFloor = 10.0;
    return std::max(kFloor, hpe * kScale);
}

}  // namespace ZEL::Server

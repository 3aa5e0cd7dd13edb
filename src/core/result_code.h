// The result of every operation that can fail on the way to a position. The values
// are the C API's result codes, which the exports check at compile time, so a
// code crosses the boundary by a plain cast.
#pragma once

namespace ZEL::Core {

enum class ResultCode : int {
    kOk = 0,
    kWifiFailure = 2,         // no adapter, or it failed
    kNoWifiInRange = 3,       // no access point heard
    kUnauthorized = 4,        // the server refused the credentials (401, 403)
    kServerUnavailable = 5,   // communication failed, or another HTTP status
    kCannotDetermine = 6,     // no position from the server or the device
    kProxyUnauthorized = 7,   // the proxy asked for authentication (407)
    kRequestNotCreated = 99,  // the HTTP request object could not be made
};

inline int toInt(ResultCode code) {
    return static_cast<int>(code);
}

}  // namespace ZEL::Core

// What LocationService::geosubmit takes: one POST /v2/geosubmit or /v1/geosubmit as
// the HTTP layer received it. The body holds the items of learn/observation_readers.h
// (readGeosubmit, both item formats), read under its Intake rules.
//
// Statuses, with the error documents of geolocate_protocol.h:
//   200 {}  the report is committed to the database (or, when the filters left no
//           observation of it, there was nothing to keep: it is answered the same,
//           since sending it again would change nothing)
//   400 parseError   a body that does not read, in any part (not JSON, too deep, a
//                    member of the wrong type, an item without a position or time, an
//                    access point without a MAC...): nothing of it is stored
//   400 keyInvalid   a missing, unknown or disabled key (no key needed with --open)
//   503 backendError no database keeps reports (the in-memory default), or the key
//                    store or the storing failed: a client may send it again later
// The report's realm is its key's (a key of any realm may submit), with --open the
// server's realm.
#pragma once

#include <string>
#include <string_view>

namespace ZEL::Server {

struct GeosubmitCall {
    std::string_view body;
    bool gzip = false;          // Content-Encoding: gzip
    std::string_view key;       // the ?key= parameter as sent, empty when absent
    std::string_view nickname;  // the X-Nickname header, empty when absent
    size_t maxInflatedBytes = 1 << 20;
};

// Bytes of a nickname or open key kept with a report; the rest is cut.
inline constexpr size_t kMaxNicknameBytes = 128;

}  // namespace ZEL::Server

// Reads the three request documents a client posts, with the same hostile-input
// rules as the client's own parsing: no network, no DTD, no entity expansion.
//
// A request is accepted only when its document element is the one its path
// expects, in the request namespace, and it carries an authentication element
// with a username and a realm. Everything else is refused with a short reason.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "core/scanned_ap.h"
#include "server/answer_writer.h"

namespace ZEL::Server {

struct Credentials {
    std::string username;
    std::string realm;
};

struct ClientRequest {
    Question question = Question::Location;
    Credentials authentication;
    // 0 none, 1 limited, 2 full; any other word (or none) reads as 0.
    int streetAddressLookup = 0;
    Core::ApList accessPoints;  // Location only; time stamps are the time of reading
    Credentials newUser;        // Registration only
};

struct ReadResult {
    std::optional<ClientRequest> request;
    std::string error;  // why not, when there is no request
};

// Longest username or realm accepted, in bytes.
inline constexpr size_t kMaxNameBytes = 256;

// Reads `body` as the document `question` expects. A location request with more
// than `maxAccessPoints` access points, or one whose MAC or signal strength does
// not read, is refused.
ReadResult readRequest(Question question, std::string_view body, size_t maxAccessPoints);

}  // namespace ZEL::Server

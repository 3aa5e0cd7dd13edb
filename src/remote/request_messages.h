// The three request documents sent to the location server, byte for byte.
//
// Documents are built by concatenation: single-quoted attributes, no whitespace
// between elements, and no XML escaping of the caller's strings: the protocol's
// documents are byte for byte these (a username holding "<" gives ill-formed XML;
// that is the caller's business).
#pragma once

#include <string>

#include "core/credentials.h"
#include "core/scanned_ap.h"

namespace ZEL::Remote {

// The namespace every request and answer element lives in.
inline constexpr const char kRequestNamespaceUri[] = "http://zelapi.net/zel/2005";

// "<?xml version='1.0'?>"
const std::string& xmlDeclaration();
// "xmlns='<namespace>' version='2.3'"
const std::string& namespaceAndVersion();

std::string makeAuthentication(Core::Credentials credentials);
// " street-address-lookup='none|limited|full'", with an empty value for any other level.
std::string makeStreetAddressLookup(int level);
std::string makeLocationRequest(Core::Credentials credentials, int level, const Core::ApList& aps);
std::string makeIPLocationRequest(Core::Credentials credentials, int level);
std::string makeRegistrationRequest(Core::Credentials credentials, Core::Credentials newUser);

}  // namespace ZEL::Remote

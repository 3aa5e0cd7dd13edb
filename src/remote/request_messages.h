// The three request documents sent to the location server, byte for byte.
//
// Documents are built by concatenation: single-quoted attributes, no whitespace
// between elements, and no XML escaping of the caller's strings (a username holding
// "<" gives ill-formed XML; that is the caller's business).
#pragma once

#include <string>

#include "spi/scanned_ap.h"
#include "zelapi.h"

namespace ZEL::API {

// The namespace every request and answer element lives in.
inline constexpr const char kRequestNamespaceUri[] = "http://zelapi.net/zel/2005";

// "<?xml version='1.0'?>"
const std::string& xmlDeclaration();
// "xmlns='<namespace>' version='2.3'"
const std::string& namespaceAndVersion();

std::string makeAuthentication(const ZEL_Authentication& authentication);
// " street-address-lookup='none|limited|full'", with an empty value for any other level.
std::string makeStreetAddressLookup(int level);
std::string makeLocationRequest(const ZEL_Authentication& authentication, int level,
                                const ApList& aps);
std::string makeIPLocationRequest(const ZEL_Authentication& authentication, int level);
std::string makeRegistrationRequest(const ZEL_Authentication& authentication,
                                    const ZEL_Authentication& newUser);

}  // namespace ZEL::API

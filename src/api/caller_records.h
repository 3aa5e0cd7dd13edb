// The records handed to the caller of the C API, made from the library's own
// records. With exports.cpp, the only code inside the library that sees zelapi.h.
#pragma once

#include "core/location_record.h"
#include "zelapi.h"

namespace ZEL::API {

// Caller records are allocated with malloc and released only by the free functions
// below (behind ZEL_free_location / ZEL_free_ip_location). Each returns null when
// memory runs out, having freed whatever it had allocated.
ZEL_Location* makeCallerLocation(const Core::LocationRecord& record);
ZEL_IPLocation* makeCallerIpLocation(const Core::IpLocationRecord& record);
// Null when every field of `address` is empty.
ZEL_StreetAddress* makeCallerStreetAddress(const Core::StreetAddress& address);

void freeCallerLocation(ZEL_Location* location);
void freeCallerIpLocation(ZEL_IPLocation* location);
void freeCallerStreetAddress(ZEL_StreetAddress* address);

}  // namespace ZEL::API

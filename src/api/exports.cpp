// The exported C functions. Each one is thin: it takes the API lock where the
// contract asks for it, translates, calls one C++ function, and never lets an
// exception cross into the caller.
#include "api/location_record.h"
#include "zelapi.h"

extern "C" {

ZEL_EXPORT void ZEL_free_location(ZEL_Location* location) {
    ZEL::API::freeCallerLocation(location);
}

ZEL_EXPORT void ZEL_free_ip_location(ZEL_IPLocation* location) {
    ZEL::API::freeCallerIpLocation(location);
}

}  // extern "C"

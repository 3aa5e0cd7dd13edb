// The engine behind the exported functions: the process-wide objects, made on first
// use and kept while the library is loaded, and one operation per export. Callers
// hold the API lock around every operation here.
#pragma once

#include <mutex>

#include "api/location_cache.h"
#include "api/periodic_location.h"
#include "local/location_determination_private.h"
#include "remote/location_determination_remote.h"
#include "zelapi.h"

namespace ZEL::API {

// Serialises every exported call except the two free functions.
std::mutex& apiLock();

LocationDeterminationRemote& remoteDetermination();
LocationDeterminationPrivate& localDetermination();
LocationCache& locationCache();
LocationSmoother& locationSmoother();

// One position: scans for up to 10 periods of 500 ms. On 0 from the scan loop the
// caller receives a record (even with a non-zero code) through `out`.
int locate(const ZEL_Authentication& auth, int streetAddressLookup, ZEL_Location** out);

// Positions every `periodMs` (0 means 1) for `periods` periods (0: until the callback
// returns 0), each handed to `callback`.
int locatePeriodically(const ZEL_Authentication& auth, uint32_t periodMs, uint32_t periods,
                       ZEL_LocationCallback callback, void* argument);

// A position from the device's IP address, as the server sees it.
int locateByIp(const ZEL_Authentication& auth, int streetAddressLookup, ZEL_IPLocation** out);

}  // namespace ZEL::API

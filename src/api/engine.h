// The engine behind the exported functions: the process-wide objects, made on first
// use and kept while the library is loaded, and one operation per export. Callers
// hold the API lock around every operation here.
#pragma once

#include <mutex>
#include <optional>

#include "api/location_cache.h"
#include "api/periodic_location.h"
#include "core/credentials.h"
#include "local/location_determination_private.h"
#include "remote/location_determination_remote.h"

namespace ZEL::API {

// Serialises every exported call except the two free functions.
std::mutex& apiLock();

Remote::LocationDeterminationRemote& remoteDetermination();
Local::LocationDeterminationPrivate& localDetermination();
LocationCache& locationCache();
LocationSmoother& locationSmoother();

// One position: scans for up to 10 periods of 500 ms. When the scan loop ran to its
// end, `out` receives the location found (empty when none), also with a non-zero
// code; when the loop failed, `out` stays empty.
Core::ResultCode locate(Core::Credentials credentials, int streetAddressLookup,
                        std::optional<Core::LocationRecord>& out);

// Positions every `periodMs` (0 means 1) for `periods` periods (0: until the callback
// returns 0), each handed to `callback`.
Core::ResultCode locatePeriodically(Core::Credentials credentials, uint32_t periodMs,
                                    uint32_t periods, const LocationCallback& callback);

// A position from the device's IP address, as the server sees it.
Core::ResultCode locateByIp(Core::Credentials credentials, int streetAddressLookup,
                            Core::IpLocationRecord& out);

}  // namespace ZEL::API

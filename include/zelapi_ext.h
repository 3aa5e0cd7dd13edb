/*
 * zelapi_ext.h: extensions beyond the core API of zelapi.h.
 *
 * These functions are not part of the nine core functions. They follow the same
 * conventions (see zelapi.h): ZEL_ codes, the one process-wide lock, no exception
 * or record ownership crossing the boundary.
 */
#ifndef ZELAPI_EXT_H
#define ZELAPI_EXT_H

#include "zelapi.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Extension: an application-supplied scan source.
 *
 * An application that receives Wi-Fi scans from elsewhere (its operating system,
 * a recording, a test) hands them to the engine through a scan source. Each time
 * the engine reads a scan it calls the source, which writes up to `capacity`
 * entries (at least 256) into `aps`, sets `*count`, and returns 0; a non-zero
 * return reports an adapter failure (the engine then treats it as a Wi-Fi error).
 * The source runs on the calling thread with the library's lock held and must not
 * call back into the library.
 */
typedef int (*ZEL_ScanSource)(void* arg, ZEL_APEntry* aps, unsigned int capacity,
                              unsigned int* count);

/*
 * While a source is set, the engine sees exactly one Wi-Fi adapter, backed by it
 * (opening it and starting a scan always succeed). NULL returns to the system's
 * adapters. Returns 0.
 */
ZEL_EXPORT int ZEL_set_scan_source(ZEL_ScanSource source, void* arg);

/*
 * Extension: a JSON geolocate service.
 *
 * While a URL is set (the full URL of the service's geolocate request, including
 * any "?key=..."), ZEL_location's remote step and ZEL_ip_location ask that service
 * in the JSON geolocate protocol instead of the location server; ZEL_register_user
 * still asks the location server. The proxy and time-outs of ZEL_set_proxy apply.
 * Only access points whose SSID does not end in "_nomap" are sent, and a scan with
 * fewer than two of them is not sent at all. A location from the service has the
 * number of access points sent as its nap (0 when the service answered from the
 * device's address instead); an IP location has no ip text. The service's "not
 * found" gives ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED. NULL or "" switches back
 * to the location server. Returns 0.
 */
ZEL_EXPORT int ZEL_set_geolocate_url(const char* url);

#ifdef __cplusplus
}
#endif

#endif /* ZELAPI_EXT_H */

/*
 * zelapi.h: locate a device from the Wi-Fi access points it hears.
 *
 * Conventions
 *  1. Every function returns one of the ZEL_ codes below (0 is success) unless it is
 *     declared void. The codes of the network, parsing and local layers reach the
 *     caller unchanged.
 *  2. Records handed out (ZEL_Location, ZEL_IPLocation and everything they point to)
 *     are allocated by the library and freed only by ZEL_free_location and
 *     ZEL_free_ip_location. Never free their parts one by one. A call may return a
 *     non-zero code together with a record: free every record you receive.
 *  3. An out pointer (ZEL_Location**, ZEL_IPLocation**) is written only when a record
 *     is made; otherwise it keeps the value it had.
 *  4. Null is accepted by ZEL_set_server_url (stored as the empty URL),
 *     ZEL_set_local_files_path (no files) and the two free functions (ignored).
 *     Authentication records and their strings must not be null.
 *  5. Strings are 8-bit, NUL-terminated. MAC addresses are stored last octet first:
 *     mac[5] is the first octet of the printed address.
 *  6. Every function except the two free functions takes one process-wide lock for
 *     its whole duration, so calls from several threads run one after another; a
 *     periodic location blocks every other call until it ends. The periodic callback
 *     runs on the caller's thread with that lock held and must not call back into
 *     the library. The record it receives is freed when it returns.
 *  7. Configuration happens only through the setters and the file
 *     "log4cpp.properties" beside the library; nothing is read from the environment.
 */
#ifndef ZELAPI_H
#define ZELAPI_H

#if defined(ZEL_BUILDING_LIBRARY) && defined(_WIN32)
#define ZEL_EXPORT __declspec(dllexport)
#elif defined(ZEL_BUILDING_LIBRARY)
#define ZEL_EXPORT __attribute__((visibility("default")))
#else
#define ZEL_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
#define ZEL_OK 0
#define ZEL_ERROR_WIFI 2                          /* no adapter, or it failed */
#define ZEL_ERROR_NO_WIFI_IN_RANGE 3              /* no access point heard */
#define ZEL_ERROR_UNAUTHORIZED 4                  /* server refused the credentials (401, 403) */
#define ZEL_ERROR_SERVER_UNAVAILABLE 5            /* communication failed, or other HTTP status */
#define ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED 6 /* no position from the server or the device */
#define ZEL_ERROR_PROXY_UNAUTHORIZED 7            /* the proxy asked for authentication (407) */
#define ZEL_ERROR_NOT_READY 99                    /* the HTTP request could not be created */

/* Street-address lookup levels; other values are passed to the server unchecked. */
#define ZEL_NO_STREET_ADDRESS_LOOKUP 0
#define ZEL_LIMITED_STREET_ADDRESS_LOOKUP 1
#define ZEL_FULL_STREET_ADDRESS_LOOKUP 2

typedef struct ZEL_Authentication {
    const char* username;
    const char* realm;
} ZEL_Authentication;

typedef int ZEL_StreetAddressLookup;

/* All strings of one street address live in a single block that starts at
 * street_number; address_line is a null-terminated array. The codes are at most
 * three characters. */
typedef struct ZEL_StreetAddress {
    char* street_number;
    char** address_line;
    char* city;
    char* postal_code;
    char* county;
    char* province;
    char* region;
    char state_code[4];
    char* state;
    char* country;
    char country_code[4];
} ZEL_StreetAddress;

/* One access point: mac[5] is the first printed octet; rss in dBm. */
typedef struct ZEL_APEntry {
    unsigned char mac[6];
    short rss;
} ZEL_APEntry;

/* aps is NULL when count is 0. */
typedef struct ZEL_APTable {
    unsigned short count;
    ZEL_APEntry* aps;
} ZEL_APTable;

typedef struct ZEL_Location {
    double latitude;                   /* degrees */
    double longitude;                  /* degrees */
    double hpe;                        /* horizontal position error, metres */
    unsigned short nap;                /* number of access points used */
    double speed;                      /* km/h; -1.0 when the server gave the position */
    double bearing;                    /* degrees; 0 when unknown */
    ZEL_StreetAddress* street_address; /* NULL when none */
    ZEL_APTable known_aps;             /* access points the position was computed from */
    ZEL_APTable unknown_aps;           /* access points heard but not placed */
} ZEL_Location;

typedef struct ZEL_IPLocation {
    char* ip;
    double latitude;
    double longitude;
    ZEL_StreetAddress* street_address; /* NULL when none */
} ZEL_IPLocation;

/* Called with code 0 and a location, or a non-zero code and NULL. The location is
 * freed when the callback returns. Return non-zero for more locations, 0 to stop. */
typedef int (*ZEL_LocationCallback)(void* arg, int code, const ZEL_Location* location);

ZEL_EXPORT int ZEL_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup lookup,
                            ZEL_Location** location);
ZEL_EXPORT int ZEL_periodic_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup lookup,
                                     unsigned int period_ms, unsigned int periods,
                                     ZEL_LocationCallback callback, void* arg);
ZEL_EXPORT int ZEL_ip_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup lookup,
                               ZEL_IPLocation** location);
ZEL_EXPORT int ZEL_register_user(const ZEL_Authentication* auth,
                                 const ZEL_Authentication* new_user);
ZEL_EXPORT void ZEL_set_server_url(const char* url);
ZEL_EXPORT void ZEL_set_proxy(const char* address, int port, const char* user,
                              const char* password);
ZEL_EXPORT int ZEL_set_local_files_path(const char** paths);
ZEL_EXPORT void ZEL_free_location(ZEL_Location* location);
ZEL_EXPORT void ZEL_free_ip_location(ZEL_IPLocation* location);

#ifdef __cplusplus
}
#endif

#endif /* ZELAPI_H */

// The exported C functions. Each one is thin: it takes the API lock, translates the
// caller's C types, calls one engine operation, and never lets an exception cross
// into the caller.
#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <mutex>

#include "api/caller_records.h"
#include "api/engine.h"
#include "api/scan_source_adapter.h"
#include "spi/log.h"
#include "zelapi.h"
#include "zelapi_ext.h"

namespace {

using namespace ZEL::API;
using ZEL::Core::ResultCode;

// The engine's codes are the caller's, value for value.
static_assert(static_cast<int>(ResultCode::kOk) == ZEL_OK);
static_assert(static_cast<int>(ResultCode::kWifiFailure) == ZEL_ERROR_WIFI);
static_assert(static_cast<int>(ResultCode::kNoWifiInRange) == ZEL_ERROR_NO_WIFI_IN_RANGE);
static_assert(static_cast<int>(ResultCode::kUnauthorized) == ZEL_ERROR_UNAUTHORIZED);
static_assert(static_cast<int>(ResultCode::kServerUnavailable) == ZEL_ERROR_SERVER_UNAVAILABLE);
static_assert(static_cast<int>(ResultCode::kCannotDetermine) ==
              ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED);
static_assert(static_cast<int>(ResultCode::kProxyUnauthorized) == ZEL_ERROR_PROXY_UNAUTHORIZED);
static_assert(static_cast<int>(ResultCode::kRequestNotCreated) == ZEL_ERROR_NOT_READY);
static_assert(ZEL::Core::kNoStreetAddress == ZEL_NO_STREET_ADDRESS_LOOKUP);
static_assert(ZEL::Core::kLimitedStreetAddress == ZEL_LIMITED_STREET_ADDRESS_LOOKUP);
static_assert(ZEL::Core::kFullStreetAddress == ZEL_FULL_STREET_ADDRESS_LOOKUP);

// Entries a scan source may write per scan.
constexpr unsigned int kScanSourceCapacity = 256;

// Runs `body` under the API lock; an exception becomes `failure`, logged on `category`.
template <typename Body>
int guarded(const char* category, int failure, Body&& body) {
    try {
        std::lock_guard<std::mutex> lock(apiLock());
        return body();
    } catch (const std::exception& e) {
        ZEL_LOG_ERROR(ZEL::SPI::getLogger(category), "unexpected failure: %s", e.what());
    } catch (...) {
        ZEL_LOG_ERROR(ZEL::SPI::getLogger(category), "unexpected failure");
    }
    return failure;
}

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

// Null strings in an authentication record are read as empty ones.
ZEL::Core::Credentials credentials(const ZEL_Authentication* auth) {
    if (auth == nullptr) {
        return {};
    }
    return {orEmpty(auth->username), orEmpty(auth->realm)};
}

int code(ResultCode result) {
    return static_cast<int>(result);
}

// Hands `record` to the caller through `out` (or frees it when `out` is null).
// Returns false when memory ran out.
template <typename Record, typename Make, typename Free>
bool handOut(const char* category, const char* what, const Record& record, Make make, Free free,
             auto** out) {
    auto* made = make(record);
    if (made == nullptr) {
        ZEL_LOG_ERROR(ZEL::SPI::getLogger(category), "out of memory for the caller's %s", what);
        return false;
    }
    if (out != nullptr) {
        *out = made;
    } else {
        free(made);
    }
    return true;
}

// The application's scan source as the engine's: one call per scan into a buffer
// of kScanSourceCapacity entries.
ScanSource scanSource(ZEL_ScanSource source, void* argument) {
    return [source, argument](ZEL::Core::ApList& aps) {
        std::array<ZEL_APEntry, kScanSourceCapacity> buffer{};
        unsigned int count = 0;
        int result = source(argument, buffer.data(), kScanSourceCapacity, &count);
        if (result != 0) {
            return result;
        }
        if (count > kScanSourceCapacity) {
            ZEL_LOG_ERROR(ZEL::SPI::getLogger("ZEL.SPI.WifiAdapter.ScanSourceAdapter"),
                          "scan source reported %u APs for %u places; reading %u", count,
                          kScanSourceCapacity, kScanSourceCapacity);
            count = kScanSourceCapacity;
        }
        for (unsigned int i = 0; i < count; ++i) {
            ZEL::Core::ScannedAP& ap = aps.emplace_back();
            std::memcpy(ap.mac.data(), buffer[i].mac, ap.mac.size());
            ap.rss = buffer[i].rss;
        }
        return 0;
    };
}

}  // namespace

extern "C" {

ZEL_EXPORT int ZEL_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup lookup,
                            ZEL_Location** location) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY, [&] {
        std::optional<ZEL::Core::LocationRecord> found;
        ResultCode result = locate(credentials(auth), lookup, found);
        if (found && !handOut("ZEL_location", "location", *found, makeCallerLocation,
                              freeCallerLocation, location)) {
            return ZEL_ERROR_NOT_READY;
        }
        return code(result);
    });
}

ZEL_EXPORT int ZEL_periodic_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup,
                                     unsigned int period_ms, unsigned int periods,
                                     ZEL_LocationCallback callback, void* arg) {
    return guarded("ZEL_periodic_location", ZEL_ERROR_NOT_READY, [&] {
        ZEL::SPI::Logger& log = ZEL::SPI::getLogger("ZEL_periodic_location");
        if (callback == nullptr) {
            ZEL_LOG_ERROR(log, "no callback given");
            return ZEL_ERROR_NOT_READY;
        }
        auto deliver = [&](ResultCode result, const ZEL::Core::LocationRecord* found) {
            if (found == nullptr) {
                return callback(arg, code(result), nullptr);
            }
            ZEL_Location* record = makeCallerLocation(*found);
            if (record == nullptr) {
                ZEL_LOG_ERROR(log, "out of memory for the caller's location");
                return callback(arg, ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED, nullptr);
            }
            int answer = callback(arg, code(result), record);
            freeCallerLocation(record);
            return answer;
        };
        return code(locatePeriodically(credentials(auth), period_ms, periods, deliver));
    });
}

ZEL_EXPORT int ZEL_ip_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup lookup,
                               ZEL_IPLocation** location) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY, [&] {
        ZEL::Core::IpLocationRecord found;
        ResultCode result = locateByIp(credentials(auth), lookup, found);
        if (result != ResultCode::kOk) {
            return code(result);
        }
        if (!handOut("ZEL_location", "ip-location", found, makeCallerIpLocation,
                     freeCallerIpLocation, location)) {
            return ZEL_ERROR_NOT_READY;
        }
        return code(result);
    });
}

ZEL_EXPORT int ZEL_register_user(const ZEL_Authentication* auth,
                                 const ZEL_Authentication* new_user) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY, [&] {
        return code(remoteDetermination().registerUser(credentials(auth), credentials(new_user)));
    });
}

ZEL_EXPORT void ZEL_set_server_url(const char* url) {
    guarded("ZEL_location", 0, [&] {
        remoteDetermination().setServerUrl(orEmpty(url));
        return 0;
    });
}

ZEL_EXPORT int ZEL_set_geolocate_url(const char* url) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY, [&] {
        remoteDetermination().setGeolocateUrl(orEmpty(url));
        return 0;
    });
}

ZEL_EXPORT void ZEL_set_proxy(const char* address, int port, const char* user,
                              const char* password) {
    guarded("ZEL_location", 0, [&] {
        remoteDetermination().setProxy(orEmpty(address), port, orEmpty(user), orEmpty(password));
        return 0;
    });
}

ZEL_EXPORT int ZEL_set_local_files_path(const char** paths) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY, [&] {
        std::vector<std::string> list;
        for (const char** path = paths; path != nullptr && *path != nullptr; ++path) {
            list.emplace_back(*path);
        }
        localDetermination().setLocalFilesPath(std::move(list));
        return 0;
    });
}

ZEL_EXPORT void ZEL_free_location(ZEL_Location* location) {
    freeCallerLocation(location);
}

ZEL_EXPORT void ZEL_free_ip_location(ZEL_IPLocation* location) {
    freeCallerIpLocation(location);
}

ZEL_EXPORT int ZEL_set_scan_source(ZEL_ScanSource source, void* arg) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY, [&] {
        installScanSource(source != nullptr ? scanSource(source, arg) : ScanSource{});
        return 0;
    });
}

}  // extern "C"

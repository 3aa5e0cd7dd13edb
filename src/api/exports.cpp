// The exported C functions. Each one is thin: it takes the API lock, translates,
// calls one engine operation, and never lets an exception cross into the caller.
#include <exception>
#include <mutex>

#include "api/engine.h"
#include "api/scan_source_adapter.h"
#include "spi/log.h"
#include "zelapi.h"
#include "zelapi_ext.h"

namespace {

using namespace ZEL::API;

// Runs `body` under the API lock; an exception becomes `failure`, logged on `category`.
template <typename Body>
int guarded(const char* category, int failure, Body&& body) {
    try {
        std::lock_guard<std::mutex> lock(apiLock());
        return body();
    } catch (const std::exception& e) {
        ZEL_LOG_ERROR(ZEL::SPI::getCategory(category), "unexpected failure: %s", e.what());
    } catch (...) {
        ZEL_LOG_ERROR(ZEL::SPI::getCategory(category), "unexpected failure");
    }
    return failure;
}

// Null strings in an authentication record are read as empty ones.
ZEL_Authentication readable(const ZEL_Authentication* auth) {
    ZEL_Authentication copy{"", ""};
    if (auth != nullptr) {
        copy.username = auth->username != nullptr ? auth->username : "";
        copy.realm = auth->realm != nullptr ? auth->realm : "";
    }
    return copy;
}

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

}  // namespace

extern "C" {

ZEL_EXPORT int ZEL_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup lookup,
                            ZEL_Location** location) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY,
                   [&] { return locate(readable(auth), lookup, location); });
}

ZEL_EXPORT int ZEL_periodic_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup,
                                     unsigned int period_ms, unsigned int periods,
                                     ZEL_LocationCallback callback, void* arg) {
    return guarded("ZEL_periodic_location", ZEL_ERROR_NOT_READY, [&] {
        if (callback == nullptr) {
            ZEL_LOG_ERROR(ZEL::SPI::getCategory("ZEL_periodic_location"), "no callback given");
            return ZEL_ERROR_NOT_READY;
        }
        return locatePeriodically(readable(auth), period_ms, periods, callback, arg);
    });
}

ZEL_EXPORT int ZEL_ip_location(const ZEL_Authentication* auth, ZEL_StreetAddressLookup lookup,
                               ZEL_IPLocation** location) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY,
                   [&] { return locateByIp(readable(auth), lookup, location); });
}

ZEL_EXPORT int ZEL_register_user(const ZEL_Authentication* auth,
                                 const ZEL_Authentication* new_user) {
    return guarded("ZEL_location", ZEL_ERROR_NOT_READY, [&] {
        return remoteDetermination().registerUser(readable(auth), readable(new_user));
    });
}

ZEL_EXPORT void ZEL_set_server_url(const char* url) {
    guarded("ZEL_location", 0, [&] {
        remoteDetermination().setServerUrl(orEmpty(url));
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
        localDetermination().setLocalFilesPath(paths);
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
        installScanSource(source, arg);
        return 0;
    });
}

}  // extern "C"

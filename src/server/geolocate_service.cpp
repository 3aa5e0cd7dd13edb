#include "server/geolocate_service.h"

#include "server/geolocate_protocol.h"
#include "server/location_service.h"
#include "spi/log.h"
#include "spi/platform.h"

namespace ZEL::Server {
namespace {

Reply parseError(std::string_view message) {
    return {400, geolocateError(400, "global", "parseError", message)};
}

Reply keyInvalid(std::string_view message) {
    return {400, geolocateError(400, "usageLimits", "keyInvalid", message)};
}

}  // namespace

std::optional<Reply> LocationService::refuseKey(std::string_view key, const char* what) {
    if (options_.open) {
        return std::nullopt;
    }
    if (key.empty()) {
        ZEL_LOG_INFO(category_, "%s request without a key", what);
        return keyInvalid("an API key is required");
    }
    const Database::KeyLookup found = data_.users->findKey(std::string(key));
    if (found.result == Database::Lookup::Failed) {
        ++metrics_.databaseErrors;
        return Reply{500, geolocateError(500, "global", "backendError", "the key store failed")};
    }
    if (found.result != Database::Lookup::Registered || !found.enabled ||
        found.realm != options_.realm) {
        ZEL_LOG_INFO(category_, "refused %s key \"%.64s\"", what, std::string(key).c_str());
        return keyInvalid("the API key is not valid here");
    }
    return std::nullopt;
}

Reply LocationService::geolocate(const GeolocateCall& call) {
    if (std::optional<Reply> refusal = refuseKey(call.key, "geolocate")) {
        return *refusal;
    }
    std::string inflated;
    std::string_view body = call.body;
    if (call.gzip) {
        std::string error;
        if (!inflateBody(call.body, call.maxInflatedBytes, inflated, error)) {
            ZEL_LOG_INFO(category_, "bad geolocate request: %s", error.c_str());
            return parseError(error);
        }
        body = inflated;
    }
    GeolocateRead read = readGeolocateRequest(body, options_.maxAccessPoints, SPI::currentTime());
    if (!read.request) {
        ZEL_LOG_INFO(category_, "bad geolocate request: %s", read.error.c_str());
        return parseError(read.error);
    }
    const GeolocateRequest& request = *read.request;
    Core::LocationRecord position;
    // nap counts the access points the estimate kept, after outliers were dropped.
    if (request.accessPoints.size() >= 2 && estimate(request.accessPoints, position) &&
        position.nap >= 2) {
        ++metrics_.positionsFound;
        return {200, geolocateAnswer(position.latitude, position.longitude,
                                     calibratedAccuracy(position.hpe), false)};
    }
    if (request.considerIp && request.ipFallback && data_.ipRanges) {
        if (const IpRange* range = data_.ipRanges->find(call.clientAddress)) {
            return {200, geolocateAnswer(range->latitude, range->longitude, kIpAccuracy, true)};
        }
    }
    ZEL_LOG_DEBUG(category_, "no geolocate position from %zu access points for %s",
                  request.accessPoints.size(), call.clientAddress.c_str());
    ++metrics_.positionsNotFound;
    return {404, geolocateError(404, "geolocation", "notFound", "no position found")};
}

}  // namespace ZEL::Server

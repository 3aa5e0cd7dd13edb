// Feeds arbitrary bytes to both ends of the JSON geolocate protocol: the server's
// request reader (plain and as a gzip body) and the library's answer reader.
// Also checks that an error document quoting any bytes is JSON.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "remote/geolocate_messages.h"
#include "server/geolocate_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace ZEL;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Core::TimeStamp now{1'800'000'000, 0};
    const Server::GeolocateRead read = Server::readGeolocateRequest(text, 100, now);
    if (read.request && read.request->accessPoints.size() > 100) {
        std::abort();  // the cap let more through
    }
    std::string inflated, error;
    if (Server::inflateBody(text, 1 << 16, inflated, error)) {
        Server::readGeolocateRequest(inflated, 100, now);
    } else if (inflated.size() > (1 << 16) + 16384) {
        std::abort();  // inflated far beyond the bound before stopping
    }
    const std::string document = Server::geolocateError(400, "global", "parseError", text);
    if (!nlohmann::json::accept(document)) {
        std::abort();
    }
    Core::LocationRecord location;
    if (Remote::parseGeolocateAnswer(text, 3, location) == Core::ResultCode::kOk &&
        !(location.latitude >= -90 && location.latitude <= 90 && location.hpe >= 0)) {
        std::abort();  // an unusable position passed
    }
    Core::IpLocationRecord ip;
    Remote::parseIpGeolocateAnswer(text, ip);
    return 0;
}

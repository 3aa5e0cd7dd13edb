#include "server/geolocate_protocol.h"

#include <zlib.h>

#include <cmath>
#include <nlohmann/json.hpp>

#include "remote/bounded_json.h"

namespace ZEL::Server {
namespace {

using Json = nlohmann::json;

// Signal assumed for an access point sent without one: the typical strength of a
// scan's access points, so it neither dominates nor vanishes in the weighting.
constexpr int kDefaultSignal = -80;
// Signals outside this range (dBm) are no measurement.
constexpr double kWeakestSignal = -150.0;
constexpr double kStrongestSignal = 0.0;
// Ages beyond a day are no scan of now; refused rather than wrapped.
constexpr double kMaxAgeMs = 86'400'000.0;

GeolocateRead refuse(std::string why) {
    return GeolocateRead{std::nullopt, std::move(why)};
}

bool endsWithNomap(std::string_view ssid) {
    constexpr std::string_view kNomap = "_nomap";
    return ssid.size() >= kNomap.size() && ssid.substr(ssid.size() - kNomap.size()) == kNomap;
}

// A number field within [low, high], or `fallback` when absent; nullopt (with
// `error` set) when present but not such a number.
std::optional<double> numberField(const Json& object, const char* name, double low, double high,
                                  double fallback, std::string& error) {
    const auto field = object.find(name);
    if (field == object.end() || field->is_null()) {
        return fallback;
    }
    if (!field->is_number() || !(field->get<double>() >= low && field->get<double>() <= high)) {
        error = std::string(name) + " is not a number in range";
        return std::nullopt;
    }
    return field->get<double>();
}

// Reads a boolean field into `out`, left as it is when absent; false (with `error`)
// when the field is not a boolean.
bool booleanField(const Json& object, const char* name, bool& out, std::string& error) {
    const auto field = object.find(name);
    if (field == object.end() || field->is_null()) {
        return true;
    }
    if (!field->is_boolean()) {
        error = std::string(name) + " is not a boolean";
        return false;
    }
    out = field->get<bool>();
    return true;
}

// One wifiAccessPoints entry; false (with `error`) when it does not read.
bool readAccessPoint(const Json& entry, Core::TimeStamp now, std::optional<Core::ScannedAP>& out,
                     std::string& error) {
    if (!entry.is_object()) {
        error = "a wifiAccessPoints entry is not an object";
        return false;
    }
    const auto mac = entry.find("macAddress");
    if (mac == entry.end() || !mac->is_string()) {
        error = "a wifiAccessPoints entry has no macAddress";
        return false;
    }
    const std::optional<Core::MacAddress> parsed = Core::parseMacText(mac->get<std::string>());
    if (!parsed) {
        error = "macAddress \"" + mac->get<std::string>().substr(0, 40) + "\" does not read";
        return false;
    }
    const auto signal = numberField(entry, "signalStrength", kWeakestSignal, kStrongestSignal,
                                    kDefaultSignal, error);
    const auto age = numberField(entry, "age", 0.0, kMaxAgeMs, 0.0, error);
    if (!signal || !age) {
        return false;
    }
    for (const char* ignored : {"channel", "frequency", "signalToNoiseRatio"}) {
        if (!numberField(entry, ignored, -1e9, 1e9, 0.0, error)) {
            return false;
        }
    }
    std::string ssid;
    if (const auto field = entry.find("ssid"); field != entry.end() && !field->is_null()) {
        if (!field->is_string()) {
            error = "ssid is not a string";
            return false;
        }
        ssid = field->get<std::string>();
    }
    if (endsWithNomap(ssid)) {
        return true;  // its owner asked not to be located by it
    }
    Core::ScannedAP ap;
    ap.mac = *parsed;
    ap.rss = static_cast<int16_t>(std::lround(*signal));
    ap.time =
        Core::TimeStamp::fromMilliseconds(now.totalMilliseconds() - static_cast<uint64_t>(*age));
    ap.setSsid(ssid.substr(0, ap.ssid.size()));
    out = ap;
    return true;
}

GeolocateRead readFields(const Json& document, size_t maxAccessPoints, Core::TimeStamp now) {
    if (!document.is_object()) {
        return refuse("the body is not a JSON object");
    }
    GeolocateRequest request;
    std::string error;
    if (!booleanField(document, "considerIp", request.considerIp, error)) {
        return refuse(error);
    }
    if (const auto fallbacks = document.find("fallbacks");
        fallbacks != document.end() && !fallbacks->is_null()) {
        if (!fallbacks->is_object()) {
            return refuse("fallbacks is not an object");
        }
        if (!booleanField(*fallbacks, "ipf", request.ipFallback, error)) {
            return refuse(error);
        }
    }
    const auto aps = document.find("wifiAccessPoints");
    if (aps == document.end() || aps->is_null()) {
        return GeolocateRead{std::move(request), {}};
    }
    if (!aps->is_array()) {
        return refuse("wifiAccessPoints is not an array");
    }
    if (aps->size() > maxAccessPoints) {
        return refuse("more than " + std::to_string(maxAccessPoints) + " access points");
    }
    for (const Json& entry : *aps) {
        std::optional<Core::ScannedAP> ap;
        if (!readAccessPoint(entry, now, ap, error)) {
            return refuse(error);
        }
        if (ap) {
            request.accessPoints.push_back(*ap);
        }
    }
    return GeolocateRead{std::move(request), {}};
}

}  // namespace

GeolocateRead readGeolocateRequest(std::string_view body, size_t maxAccessPoints,
                                   Core::TimeStamp now) {
    if (body.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        return GeolocateRead{GeolocateRequest{}, {}};  // no body: locate by address
    }
    std::string error;
    const std::optional<Json> document = Remote::parseBoundedJson(body, kMaxGeolocateDepth, error);
    if (!document) {
        return refuse(error);
    }
    return readFields(*document, maxAccessPoints, now);
}

bool inflateBody(std::string_view compressed, size_t maxBytes, std::string& out,
                 std::string& error) {
    z_stream stream{};
    // 15 + 32: the largest window, gzip or zlib header detected.
    if (inflateInit2(&stream, 15 + 32) != Z_OK) {
        error = "cannot start inflating";
        return false;
    }
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
    stream.avail_in = static_cast<uInt>(compressed.size());
    out.clear();
    char chunk[16384];
    int status = Z_OK;
    while (status == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef*>(chunk);
        stream.avail_out = sizeof chunk;
        status = inflate(&stream, Z_NO_FLUSH);
        out.append(chunk, sizeof chunk - stream.avail_out);
        if (out.size() > maxBytes) {
            error = "the body inflates to more than " + std::to_string(maxBytes) + " bytes";
            inflateEnd(&stream);
            return false;
        }
    }
    inflateEnd(&stream);
    if (status != Z_STREAM_END) {  // Z_BUF_ERROR: the input ended before the stream
        error = "the gzip body is damaged or truncated";
        return false;
    }
    return true;
}

std::string geolocateAnswer(double latitude, double longitude, double accuracy, bool ipFallback) {
    Json answer = {{"location", {{"lat", latitude}, {"lng", longitude}}}, {"accuracy", accuracy}};
    if (ipFallback) {
        answer["fallback"] = "ipf";
    }
    return answer.dump();
}

std::string geolocateError(int status, std::string_view domain, std::string_view reason,
                           std::string_view message) {
    // Replacing ill-formed UTF-8 keeps a message quoting the client's bytes writable.
    const Json error = {{"domain", domain}, {"reason", reason}, {"message", message}};
    const Json document = {
        {"error", {{"errors", Json::array({error})}, {"code", status}, {"message", message}}}};
    return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace ZEL::Server

#include "remote/geolocate_messages.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "remote/bounded_json.h"

namespace ZEL::Remote {
namespace {

using Json = nlohmann::json;

// Deepest nesting read in an answer; a hostile service cannot make it recurse further.
constexpr int kMaxAnswerDepth = 8;

// Oldest age sent, milliseconds; the receiving service needs no older ones.
constexpr uint64_t kMaxAgeMs = 86'400'000;

// "aa:bb:cc:dd:ee:ff" in printed order (mac[5] first).
std::string macAddressText(const Core::MacAddress& mac) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (int i = 5; i >= 0; --i) {
        text += kHex[mac[i] >> 4];
        text += kHex[mac[i] & 0x0F];
        if (i > 0) {
            text += ':';
        }
    }
    return text;
}

bool finiteNumber(const Json& object, const char* name, double low, double high, double& out) {
    const auto field = object.find(name);
    if (field == object.end() || !field->is_number()) {
        return false;
    }
    out = field->get<double>();
    return std::isfinite(out) && out >= low && out <= high;
}

struct Position {
    double latitude = 0.0, longitude = 0.0, accuracy = 0.0;
    bool fallback = false;
};

bool readAnswer(std::string_view text, Position& out) {
    std::string error;
    const std::optional<Json> parsed = parseBoundedJson(text, kMaxAnswerDepth, error);
    if (!parsed) {
        return false;
    }
    const Json& answer = *parsed;
    if (!answer.is_object()) {
        return false;
    }
    const auto location = answer.find("location");
    if (location == answer.end() || !location->is_object()) {
        return false;
    }
    out.fallback = answer.contains("fallback") && !answer["fallback"].is_null();
    return finiteNumber(*location, "lat", -90.0, 90.0, out.latitude) &&
           finiteNumber(*location, "lng", -180.0, 180.0, out.longitude) &&
           finiteNumber(answer, "accuracy", 0.0, 2.1e7, out.accuracy);
}

}  // namespace

Core::ApList sendableAccessPoints(const Core::ApList& aps) {
    constexpr std::string_view kNomap = "_nomap";
    Core::ApList sendable;
    for (const Core::ScannedAP& ap : aps) {
        const std::string ssid = ap.ssidText();
        if (ssid.size() < kNomap.size() ||
            ssid.compare(ssid.size() - kNomap.size(), kNomap.size(), kNomap) != 0) {
            sendable.push_back(ap);
        }
    }
    return sendable;
}

std::string makeGeolocateRequest(const Core::ApList& aps, Core::TimeStamp now) {
    Json list = Json::array();
    for (const Core::ScannedAP& ap : aps) {
        // A stamp from the future (a clock step) is an access point heard now; one
        // older than a day (no stamp at all) is sent as a day old.
        const uint64_t heard = ap.time.totalMilliseconds(), at = now.totalMilliseconds();
        const uint64_t age = std::min<uint64_t>(at > heard ? at - heard : 0, kMaxAgeMs);
        list.push_back(
            {{"macAddress", macAddressText(ap.mac)}, {"signalStrength", ap.rss}, {"age", age}});
    }
    const Json request = {{"considerIp", false},
                          {"fallbacks", {{"ipf", false}, {"lacf", false}}},
                          {"wifiAccessPoints", std::move(list)}};
    return request.dump();
}

std::string makeIpGeolocateRequest() {
    return R"({"considerIp":true})";
}

Core::ResultCode parseGeolocateAnswer(std::string_view text, uint16_t sent,
                                      Core::LocationRecord& location) {
    Position position;
    if (!readAnswer(text, position)) {
        return Core::ResultCode::kCannotDetermine;
    }
    location.latitude = position.latitude;
    location.longitude = position.longitude;
    location.hpe = position.accuracy;
    location.nap = position.fallback ? 0 : sent;
    location.speed = -1.0;
    location.bearing = 0.0;
    return Core::ResultCode::kOk;
}

Core::ResultCode parseIpGeolocateAnswer(std::string_view text, Core::IpLocationRecord& location) {
    Position position;
    if (!readAnswer(text, position)) {
        return Core::ResultCode::kCannotDetermine;
    }
    location.latitude = position.latitude;
    location.longitude = position.longitude;
    return Core::ResultCode::kOk;
}

}  // namespace ZEL::Remote

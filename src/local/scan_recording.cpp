#include "local/scan_recording.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <limits>

namespace ZEL::Local {
namespace {

using nlohmann::json;

// Time stamps hold 32-bit seconds.
constexpr uint64_t kMaxTimeMs = (uint64_t{1} << 32) * 1000 - 1;

bool parseAp(const json& item, uint64_t timeMs, Core::ScannedAP& ap, std::string& error) {
    if (!item.is_object()) {
        error = "is not an object";
        return false;
    }
    auto mac = item.find("mac");
    if (mac == item.end() || !mac->is_string()) {
        error = "has no \"mac\" string";
        return false;
    }
    auto parsed = Core::parseMacText(mac->get_ref<const std::string&>());
    if (!parsed) {
        error = "has a \"mac\" that is not 12 hex digits";
        return false;
    }
    auto rss = item.find("rss");
    if (rss == item.end() || !rss->is_number_integer() ||
        (rss->is_number_unsigned() && rss->get<uint64_t>() > 32767) ||
        (!rss->is_number_unsigned() &&
         (rss->get<int64_t>() < -32768 || rss->get<int64_t>() > 32767))) {
        error = "has no \"rss\" integer in -32768..32767";
        return false;
    }
    ap.mac = *parsed;
    ap.rss = static_cast<int16_t>(rss->get<int64_t>());
    ap.time = Core::TimeStamp::fromMilliseconds(timeMs);
    auto ssid = item.find("ssid");
    if (ssid != item.end()) {
        if (!ssid->is_string()) {
            error = "has an \"ssid\" that is not a string";
            return false;
        }
        ap.setSsid(ssid->get_ref<const std::string&>());
    }
    return true;
}

// The optional position members; false with `error` set when they are malformed.
bool parsePosition(const json& document, std::optional<RecordedPosition>& position,
                   std::string& error) {
    auto latitude = document.find("latitude");
    auto longitude = document.find("longitude");
    auto accuracy = document.find("accuracy");
    if (latitude == document.end() && longitude == document.end()) {
        return true;
    }
    if (latitude == document.end() || longitude == document.end() || !latitude->is_number() ||
        !longitude->is_number() || std::fabs(latitude->get<double>()) > 90 ||
        std::fabs(longitude->get<double>()) > 180) {
        error = "\"latitude\" and \"longitude\" must both be numbers within range";
        return false;
    }
    if (accuracy != document.end() && (!accuracy->is_number() || accuracy->get<double>() < 0)) {
        error = "\"accuracy\" must be a number of metres";
        return false;
    }
    position = RecordedPosition{latitude->get<double>(), longitude->get<double>(),
                                accuracy == document.end() ? 0.0 : accuracy->get<double>()};
    return true;
}

}  // namespace

std::optional<RecordedScan> parseRecordedScan(std::string_view line, std::string& error) {
    if (line.size() > kMaxRecordingLineBytes) {
        error = "line too long";
        return std::nullopt;
    }
    const json document = json::parse(line.begin(), line.end(), nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        error = "not a JSON object";
        return std::nullopt;
    }
    RecordedScan scan;
    auto time = document.find("t_ms");
    if (time == document.end() || !time->is_number_unsigned() ||
        time->get<uint64_t>() > kMaxTimeMs) {
        error = "\"t_ms\" missing or not an integer in 0..4294967295999";
        return std::nullopt;
    }
    scan.timeMs = time->get<uint64_t>();
    if (!parsePosition(document, scan.position, error)) {
        return std::nullopt;
    }
    auto aps = document.find("aps");
    if (aps == document.end() || !aps->is_array()) {
        error = "\"aps\" missing or not an array";
        return std::nullopt;
    }
    scan.aps.reserve(aps->size());
    for (size_t i = 0; i < aps->size(); ++i) {
        Core::ScannedAP ap;
        std::string why;
        if (!parseAp((*aps)[i], scan.timeMs, ap, why)) {
            error = "AP " + std::to_string(i + 1) + " " + why;
            return std::nullopt;
        }
        scan.aps.push_back(ap);
    }
    return scan;
}

std::string formatRecordedScan(const RecordedScan& scan) {
    std::string line = "{\"t_ms\":" + std::to_string(scan.timeMs);
    if (scan.position) {
        char text[96];
        std::snprintf(text, sizeof text, ",\"latitude\":%.9g,\"longitude\":%.9g,\"accuracy\":%.3g",
                      scan.position->latitude, scan.position->longitude, scan.position->accuracy);
        line += text;
    }
    line += ",\"aps\":[";
    for (size_t i = 0; i < scan.aps.size(); ++i) {
        const Core::ScannedAP& ap = scan.aps[i];
        if (i > 0) {
            line += ',';
        }
        line += "{\"mac\":\"" + Core::macText(ap.mac) + "\",\"rss\":" + std::to_string(ap.rss);
        if (ap.ssidLength > 0) {
            line += ",\"ssid\":" +
                    json(ap.ssidText()).dump(-1, ' ', false, json::error_handler_t::replace);
        }
        line += '}';
    }
    line += "]}";
    return line;
}

std::optional<ScanRecordingReader::Item> ScanRecordingReader::next() {
    std::string_view text;
    if (!lines_.nextLine(text)) {
        return std::nullopt;
    }
    Item item;
    item.line = lines_.lineNumber();
    item.scan = parseRecordedScan(text, item.error);
    return item;
}

}  // namespace ZEL::Local

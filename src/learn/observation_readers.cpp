#include "learn/observation_readers.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>

#include "core/number_text.h"
#include "core/text_reader.h"
#include "local/scan_recording.h"
#include "remote/bounded_json.h"

namespace ZEL::Learn {
namespace {

using nlohmann::json;

bool equalsIgnoringCase(std::string_view text, std::string_view lowerCase) {
    return std::equal(
        text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
        [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; });
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

bool inRange(double latitude, double longitude) {
    return std::fabs(latitude) <= 90 && std::fabs(longitude) <= 180;
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) {
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const auto yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

// "YYYY-MM-DD HH:MM:SS" as ms since 1970 (UTC), or nullopt.
std::optional<uint64_t> parseDateTime(std::string_view text) {
    unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (text.size() != 19 || text[4] != '-' || text[7] != '-' ||
        (text[10] != ' ' && text[10] != 'T') || text[13] != ':' || text[16] != ':' ||
        !Core::parseUnsigned(text.substr(0, 4), year) ||
        !Core::parseUnsigned(text.substr(5, 2), month) ||
        !Core::parseUnsigned(text.substr(8, 2), day) ||
        !Core::parseUnsigned(text.substr(11, 2), hour) ||
        !Core::parseUnsigned(text.substr(14, 2), minute) ||
        !Core::parseUnsigned(text.substr(17, 2), second) || year < 1970 || month < 1 ||
        month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    const int64_t seconds =
        daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    return static_cast<uint64_t>(seconds) * 1000;
}

// Unix seconds, milliseconds or a date and time (see the header), or nullopt.
std::optional<uint64_t> parseTime(std::string_view text) {
    uint64_t number = 0;
    if (Core::parseUnsigned(text, number)) {
        if (number >= uint64_t{1} << 52) {
            return std::nullopt;
        }
        return number < 100'000'000'000ull ? number * 1000 : number;
    }
    return parseDateTime(text);
}

// The RSS as stored in an observation: 0 (not known) for 0 or more, else within int.
int observationRss(double rss) {
    return rss >= 0 ? 0 : static_cast<int>(std::lround(std::max(rss, -200.0)));
}

class Sink {
  public:
    explicit Sink(ReadResult& result) : result_(result) {}

    void issue(size_t line, std::string message) {
        result_.issues.push_back({line, std::move(message)});
    }

    // Counts access points left out by the intake rules.
    void filter(size_t accessPoints) { result_.filtered += accessPoints; }

    // Adds the observation unless the intake rules refuse it; a bad position is an issue.
    void observe(size_t line, const Observation& observation, std::string_view ssid) {
        if (!inRange(observation.latitude, observation.longitude)) {
            issue(line, "position out of range");
        } else if (intakeRefusal(observation.mac, ssid)) {
            ++result_.filtered;
        } else {
            result_.observations.push_back(observation);
        }
    }

  private:
    ReadResult& result_;
};

// The fields of the next well-formed row with `count` fields; false at the end.
bool nextRow(Core::TextReader& reader, Sink& sink, std::vector<std::string>& fields, size_t count) {
    Core::CsvRecord record;
    while (reader.nextRecord(record)) {
        if (!record.error.empty()) {
            sink.issue(reader.lineNumber(), record.error);
        } else if (record.fields.size() != count) {
            sink.issue(reader.lineNumber(), "expected " + std::to_string(count) +
                                                " fields, found " +
                                                std::to_string(record.fields.size()));
        } else {
            fields = std::move(record.fields);
            return true;
        }
    }
    return false;
}

// A column's index, -1 when `name` is empty or not in the header.
int columnOf(const Core::ColumnMap& header, const std::string& name) {
    if (name.empty()) {
        return -1;
    }
    std::optional<size_t> column = header.find(name);
    return column ? static_cast<int>(*column) : -1;
}

// Reads CSV rows as observations (or positions when there is no rss column) through
// `columns`, whose mac, latitude and longitude must be in the header.
void readRows(Core::TextReader& reader, const std::vector<std::string>& header,
              const ColumnMapping& columns, ReadResult& result, const char* typeColumn) {
    Sink sink(result);
    Core::ColumnMap map(header, Core::ColumnMap::NameCase::IgnoreAscii);
    const int mac = columnOf(map, columns.mac), latitude = columnOf(map, columns.latitude),
              longitude = columnOf(map, columns.longitude), rss = columnOf(map, columns.rss),
              time = columnOf(map, columns.time), accuracy = columnOf(map, columns.accuracy),
              ssid = columnOf(map, columns.ssid),
              type = typeColumn == nullptr ? -1 : columnOf(map, typeColumn);
    if (mac < 0 || latitude < 0 || longitude < 0 || (!columns.rss.empty() && rss < 0)) {
        result.error = "the header must name " + columns.mac + ", " + columns.latitude + ", " +
                       columns.longitude + (columns.rss.empty() ? "" : " and " + columns.rss);
        return;
    }
    std::vector<std::string> fields;
    while (nextRow(reader, sink, fields, header.size())) {
        const size_t line = reader.lineNumber();
        if (type >= 0 && !equalsIgnoringCase(fields[type], "wifi")) {
            continue;  // Bluetooth and cell rows are normal in an export
        }
        auto parsedMac = Core::parseMacText(fields[mac]);
        auto lat = Core::parseFiniteDouble(fields[latitude]);
        auto lon = Core::parseFiniteDouble(fields[longitude]);
        auto signal = rss < 0 ? std::optional(0.0) : Core::parseFiniteDouble(fields[rss]);
        auto fixAccuracy = accuracy < 0 || fields[accuracy].empty()
                               ? std::optional(0.0)
                               : Core::parseFiniteDouble(fields[accuracy]);
        auto when =
            time < 0 || fields[time].empty() ? std::optional<uint64_t>(0) : parseTime(fields[time]);
        if (!parsedMac) {
            sink.issue(line, "invalid MAC '" + fields[mac] + "'");
        } else if (!lat || !lon) {
            sink.issue(line, "latitude and longitude must be numbers");
        } else if (!signal) {
            sink.issue(line, "RSS must be a number");
        } else if (!fixAccuracy || *fixAccuracy < 0) {
            sink.issue(line, "accuracy must be a number of metres");
        } else if (!when) {
            sink.issue(line, "time must be Unix seconds, milliseconds or YYYY-MM-DD HH:MM:SS");
        } else if (typeColumn != nullptr && *lat == 0 && *lon == 0) {
            sink.issue(line, "no position fix");
        } else if (columns.rss.empty()) {
            if (!inRange(*lat, *lon)) {
                sink.issue(line, "position out of range");
            } else if (intakeRefusal(*parsedMac, ssid < 0 ? "" : fields[ssid])) {
                ++result.filtered;
            } else {
                result.positions.push_back({*parsedMac, *lat, *lon, 50, 0.25});
            }
        } else {
            sink.observe(line,
                         {*parsedMac, *lat, *lon, *fixAccuracy, observationRss(*signal), *when},
                         ssid < 0 ? "" : fields[ssid]);
        }
    }
}

// The document, or a discarded value for text too large, too deep or not JSON
// (`error` then says which).
json parseBounded(std::string_view text, std::string& error) {
    if (text.size() > kMaxJsonBytes) {
        error = "larger than " + std::to_string(kMaxJsonBytes) + " bytes";
        return json(json::value_t::discarded);
    }
    std::optional<json> document =
        Remote::parseBoundedJson(text, static_cast<int>(kMaxJsonDepth), error);
    return document ? std::move(*document) : json(json::value_t::discarded);
}

// A member that must be a number when present; false when it is something else.
bool numberMember(const json& object, const char* name, double& value) {
    auto member = object.find(name);
    if (member == object.end() || member->is_null()) {
        return true;
    }
    if (!member->is_number()) {
        return false;
    }
    value = member->get<double>();
    return std::isfinite(value);
}

// "YYYY-MM-DDTHH:MM:SS[.fff][Z|+HH|+HHMM|+HH:MM]" as ms since 1970, or nullopt.
std::optional<uint64_t> parseZonedTime(std::string_view text) {
    std::optional<uint64_t> ms = parseDateTime(text.substr(0, 19));
    std::string_view rest = text.substr(std::min<size_t>(19, text.size()));
    if (ms && rest.starts_with('.')) {
        const size_t end = std::min(rest.find_first_not_of("0123456789", 1), rest.size());
        const std::string milliseconds = std::string(rest.substr(1, std::min<size_t>(end - 1, 3)));
        unsigned fraction = 0;
        if (end == 1 || !Core::parseUnsigned((milliseconds + "00").substr(0, 3), fraction)) {
            return std::nullopt;
        }
        *ms += fraction;
        rest.remove_prefix(end);
    }
    if (!ms || rest.empty() || rest == "Z") {
        return ms;
    }
    unsigned hours = 0, minutes = 0;
    const std::string_view offset = rest.substr(1);
    const bool read = (rest[0] == '+' || rest[0] == '-') && offset.size() >= 2 &&
                      Core::parseUnsigned(offset.substr(0, 2), hours) &&
                      (offset.size() == 2 ||
                       (offset.size() == 4 && Core::parseUnsigned(offset.substr(2), minutes)) ||
                       (offset.size() == 5 && offset[2] == ':' &&
                        Core::parseUnsigned(offset.substr(3), minutes)));
    const uint64_t shift = (hours * 60 + minutes) * 60'000ull;
    if (!read || hours > 23 || minutes > 59 || (rest[0] == '+' && shift > *ms)) {
        return std::nullopt;
    }
    return rest[0] == '+' ? *ms - shift : *ms + shift;  // local = UTC + offset
}

uint64_t minusAge(double timestampMs, double ageMs) {
    const double time = timestampMs - std::max(ageMs, 0.0);
    return time > 0 && time < 9e15 ? static_cast<uint64_t>(time) : 0;
}

// The member names of an item's access points in the two formats.
struct ItemFormat {
    const char* accessPoints;
    const char* mac;
    const char* signal;
};
constexpr ItemFormat kItem{"wifiAccessPoints", "macAddress", "signalStrength"};
constexpr ItemFormat kOlderItem{"wifi", "key", "signal"};

// Where and when an item was made: time in ms, 0 when not stated.
struct Fix {
    double latitude = 0, longitude = 0, accuracy = 0, age = 0, time = 0;
};

// The item's fix and format; false when the item is not an object with a numeric
// position (and, when stated, a time) in one of the formats.
bool readFix(const json& item, Fix& fix, const ItemFormat*& format) {
    if (!item.is_object()) {
        return false;
    }
    auto position = item.find("position");
    if (position != item.end()) {
        format = &kItem;
        return position->is_object() && position->contains("latitude") &&
               position->contains("longitude") &&
               numberMember(*position, "latitude", fix.latitude) &&
               numberMember(*position, "longitude", fix.longitude) &&
               numberMember(*position, "accuracy", fix.accuracy) &&
               numberMember(*position, "age", fix.age) && numberMember(item, "timestamp", fix.time);
    }
    format = &kOlderItem;
    auto time = item.find("time");
    std::optional<uint64_t> parsed(0);
    if (time != item.end() && !time->is_null()) {
        parsed =
            time->is_string() ? parseZonedTime(time->get_ref<const std::string&>()) : std::nullopt;
    }
    fix.time = static_cast<double>(parsed.value_or(0));
    return parsed && item.contains("lat") && item.contains("lon") &&
           numberMember(item, "lat", fix.latitude) && numberMember(item, "lon", fix.longitude) &&
           numberMember(item, "accuracy", fix.accuracy);
}

void readItem(const json& item, size_t line, const std::string& where, Sink& sink,
              const Intake* intake) {
    Fix fix;
    const ItemFormat* format = &kItem;
    if (!readFix(item, fix, format) || fix.accuracy < 0) {
        sink.issue(line, where + "needs a numeric \"position\" (or \"lat\" and \"lon\") and time");
        return;
    }
    auto aps = item.find(format->accessPoints);
    if (aps == item.end() || aps->is_null()) {
        return;  // a report of cells or Bluetooth only
    }
    if (!aps->is_array()) {
        sink.issue(line, where + "has a \"" + format->accessPoints + "\" that is not an array");
        return;
    }
    if (intake) {
        if (fix.time == 0) {
            fix.time = static_cast<double>(intake->nowMs);
        }
        const double now = static_cast<double>(intake->nowMs);
        if (fix.time + static_cast<double>(intake->maxAgeMs) < now ||
            fix.time > now + static_cast<double>(kMaxFutureMs) ||
            !inRange(fix.latitude, fix.longitude)) {
            sink.filter(aps->size());
            return;
        }
    }
    for (size_t i = 0; i < aps->size(); ++i) {
        const json& ap = (*aps)[i];
        const std::string apWhere = where + "access point " + std::to_string(i + 1) + " ";
        auto mac = ap.is_object() ? ap.find(format->mac) : ap.end();
        double rss = 0, age = fix.age;
        if (!ap.is_object() || mac == ap.end() || !mac->is_string()) {
            sink.issue(line, apWhere + "has no \"" + format->mac + "\" string");
            continue;
        }
        auto parsed = Core::parseMacText(mac->get_ref<const std::string&>());
        auto ssid = ap.find("ssid");
        if (!parsed) {
            sink.issue(line, apWhere + "has a \"" + format->mac + "\" that is not 12 hex digits");
        } else if (!numberMember(ap, format->signal, rss) || !numberMember(ap, "age", age)) {
            sink.issue(line, apWhere + "has a non-numeric \"" + format->signal + "\" or \"age\"");
        } else if (ssid != ap.end() && !ssid->is_null() && !ssid->is_string()) {
            sink.issue(line, apWhere + "has an \"ssid\" that is not a string");
        } else {
            sink.observe(line,
                         {*parsed, fix.latitude, fix.longitude, fix.accuracy, observationRss(rss),
                          minusAge(fix.time, age)},
                         ssid != ap.end() && ssid->is_string() ? ssid->get_ref<const std::string&>()
                                                               : std::string());
        }
    }
}

// A document: a body with "items", or one item.
void readDocument(const json& document, size_t line, Sink& sink, const Intake* intake) {
    auto items = document.is_object() ? document.find("items") : document.end();
    if (items == document.end()) {
        readItem(document, line, "", sink, intake);
    } else if (!items->is_array()) {
        sink.issue(line, "\"items\" is not an array");
    } else {
        for (size_t i = 0; i < items->size(); ++i) {
            readItem((*items)[i], line, "item " + std::to_string(i + 1) + " ", sink, intake);
        }
    }
}

}  // namespace

std::optional<std::string> intakeRefusal(const Core::MacAddress& mac, std::string_view ssid) {
    if (ssid.ends_with("_nomap")) {
        return "its SSID ends in _nomap";
    }
    if (std::all_of(mac.begin(), mac.end(), [](uint8_t byte) { return byte == 0; })) {
        return "its MAC is all zero";
    }
    if ((mac[5] & 0x01) != 0) {  // mac[5] is the first octet printed
        return "its MAC is a group address";
    }
    return std::nullopt;
}

std::optional<ColumnMapping> parseColumnMapping(std::string_view text, std::string& error) {
    ColumnMapping mapping;
    const std::pair<const char*, std::string*> keys[] = {
        {"mac", &mapping.mac},  {"latitude", &mapping.latitude}, {"longitude", &mapping.longitude},
        {"rss", &mapping.rss},  {"time", &mapping.time},         {"accuracy", &mapping.accuracy},
        {"ssid", &mapping.ssid}};
    Core::CsvRecord record = Core::splitCsvLine(text);
    if (!record.error.empty()) {
        error = record.error;
        return std::nullopt;
    }
    for (const std::string& field : record.fields) {
        const size_t equals = field.find('=');
        const std::string key = field.substr(0, equals);
        auto known = std::find_if(std::begin(keys), std::end(keys),
                                  [&](const auto& entry) { return key == entry.first; });
        if (equals == std::string::npos || equals + 1 == field.size() || known == std::end(keys)) {
            error = "'" + field +
                    "' is not KEY=COLUMN with KEY one of mac, latitude, longitude, "
                    "rss, time, accuracy, ssid";
            return std::nullopt;
        }
        if (!known->second->empty()) {
            error = "'" + key + "' is given twice";
            return std::nullopt;
        }
        *known->second = field.substr(equals + 1);
    }
    if (mapping.mac.empty() || mapping.latitude.empty() || mapping.longitude.empty()) {
        error = "mac, latitude and longitude must be given";
        return std::nullopt;
    }
    return mapping;
}

ReadResult readWigle(std::string_view text) {
    ReadResult result;
    Core::TextReader reader(text);
    std::string_view line;
    if (!reader.nextLine(line) || !trimmed(line).starts_with("WigleWifi-")) {
        result.error = "not a WiGLE export (no first line \"WigleWifi-...\")";
        return result;
    }
    if (!reader.nextLine(line)) {
        result.error = reader.lineMessage("no header line after the export's first line");
        return result;
    }
    Core::CsvRecord header = Core::splitCsvLine(line);
    if (!header.error.empty()) {
        result.error = reader.lineMessage("malformed header: " + header.error);
        return result;
    }
    const ColumnMapping columns{"mac",  "currentlatitude", "currentlongitude",
                                "rssi", "firstseen",       "accuracymeters",
                                "ssid"};
    readRows(reader, header.fields, columns, result, "type");
    return result;
}

ReadResult readMappedCsv(std::string_view text, const ColumnMapping& columns) {
    ReadResult result;
    Core::TextReader reader(text);
    std::string_view line;
    if (!reader.nextLine(line)) {
        result.error = "no header line";
        return result;
    }
    Core::CsvRecord header = Core::splitCsvLine(line);
    if (!header.error.empty()) {
        result.error = reader.lineMessage("malformed header: " + header.error);
        return result;
    }
    readRows(reader, header.fields, columns, result, nullptr);
    return result;
}

ReadResult readGeosubmit(std::string_view text, const Intake* intake) {
    ReadResult result;
    Sink sink(result);
    try {
        std::string error;
        const json whole = parseBounded(text, error);
        if (intake && !whole.is_object()) {
            sink.issue(1, whole.is_discarded() ? error : "the body is not a JSON object");
            return result;
        }
        if (!whole.is_discarded() && whole.is_object()) {
            readDocument(whole,
                         1 + std::count(text.begin(),
                                        text.begin() + (text.size() - trimmed(text).size()), '\n'),
                         sink, intake);
            return result;
        }
        Core::TextReader reader(text);
        std::string_view line;
        while (reader.nextLine(line)) {
            const json document = parseBounded(line, error);
            if (document.is_discarded() || !document.is_object()) {
                sink.issue(reader.lineNumber(), "not a JSON object (or too large or deep)");
            } else {
                readDocument(document, reader.lineNumber(), sink, nullptr);
            }
        }
    } catch (const json::exception& error) {
        sink.issue(0, std::string("unreadable JSON: ") + error.what());
    }
    return result;
}

ReadResult readRecording(std::string_view text) {
    ReadResult result;
    Sink sink(result);
    Core::TextReader reader(text);
    std::string_view line;
    while (reader.nextLine(line)) {
        std::string error;
        std::optional<Local::RecordedScan> scan = Local::parseRecordedScan(line, error);
        if (!scan) {
            sink.issue(reader.lineNumber(), error);
        } else if (!scan->position) {
            sink.issue(reader.lineNumber(), "no \"latitude\" and \"longitude\" of the scan");
        } else {
            for (const Core::ScannedAP& ap : scan->aps) {
                sink.observe(reader.lineNumber(),
                             {ap.mac, scan->position->latitude, scan->position->longitude,
                              scan->position->accuracy, observationRss(ap.rss), scan->timeMs},
                             ap.ssidText());
            }
        }
    }
    return result;
}

ReadResult readAny(std::string_view text, const ColumnMapping* columns) {
    if (columns != nullptr) {
        return readMappedCsv(text, *columns);
    }
    std::string_view first = trimmed(text);
    first = first.substr(0, first.find('\n'));
    if (first.starts_with("WigleWifi-")) {
        return readWigle(text);
    }
    if (first.starts_with("{")) {
        return first.find("\"t_ms\"") != std::string_view::npos ? readRecording(text)
                                                                : readGeosubmit(text);
    }
    Tiles::ApCsvResult csv = Tiles::parseAccessPointCsv(text);
    ReadResult result;
    result.error = std::move(csv.error);
    result.issues = std::move(csv.issues);
    for (const Tiles::AccessPointPosition& ap : csv.accessPoints) {
        if (intakeRefusal(ap.mac, "")) {
            ++result.filtered;
        } else {
            result.positions.push_back(ap);
        }
    }
    return result;
}

}  // namespace ZEL::Learn

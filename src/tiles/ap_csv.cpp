#include "tiles/ap_csv.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <unordered_map>

#include "core/number_text.h"

namespace ZEL::Tiles {
namespace {

constexpr uint32_t kDefaultQuality = 50;
constexpr double kDefaultExponent = 0.25;
constexpr double kUnknownRss = -100.0;

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

std::string lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

// Fields of one line; double quotes enclose a field and "" stands for a quote.
// Empty for an unterminated quote.
std::optional<std::vector<std::string>> splitFields(std::string_view line) {
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (quoted) {
            if (c == '"' && i + 1 < line.size() && line[i + 1] == '"') {
                fields.back() += '"';
                ++i;
            } else if (c == '"') {
                quoted = false;
            } else {
                fields.back() += c;
            }
        } else if (c == '"') {
            quoted = true;
        } else if (c == ',') {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    if (quoted) {
        return std::nullopt;
    }
    return fields;
}

std::optional<double> parseNumber(std::string_view text) {
    return Core::parseFiniteDouble(trim(text));
}

std::optional<uint32_t> parseCount(std::string_view text) {
    uint32_t value = 0;
    return Core::parseUnsigned(trim(text), value) ? std::optional(value) : std::nullopt;
}

// Splits `text` into lines, numbering them from 1.
class Lines {
  public:
    explicit Lines(std::string_view text) : text_(text) {}
    bool next(std::string_view& line) {
        if (position_ >= text_.size()) {
            return false;
        }
        size_t end = text_.find('\n', position_);
        end = end == std::string_view::npos ? text_.size() : end;
        line = text_.substr(position_, end - position_);
        position_ = end + 1;
        ++number_;
        return true;
    }
    size_t number() const { return number_; }

  private:
    std::string_view text_;
    size_t position_ = 0;
    size_t number_ = 0;
};

// Positions of the named columns in a header; -1 for a column not there.
std::vector<int> columnsOf(const std::vector<std::string>& header,
                           const std::vector<std::string>& names) {
    std::vector<int> columns;
    for (const std::string& name : names) {
        auto it = std::find_if(header.begin(), header.end(), [&](const std::string& field) {
            return lower(trim(field)) == name;
        });
        columns.push_back(it == header.end() ? -1 : static_cast<int>(it - header.begin()));
    }
    return columns;
}

// The coordinates, or an explanation of what is wrong with them.
std::optional<std::string> checkPosition(std::optional<double> latitude,
                                         std::optional<double> longitude) {
    if (!latitude || !longitude) {
        return "latitude and longitude must be numbers";
    }
    if (std::fabs(*latitude) > 90 || std::fabs(*longitude) > 180) {
        return "position out of range";
    }
    return std::nullopt;
}

class Parser {
  public:
    explicit Parser(std::string_view text) : lines_(text) {}

    ApCsvResult run() {
        std::string_view line;
        while (lines_.next(line) && trim(line).empty()) {
        }
        if (trim(line).rfind("WigleWifi-", 0) == 0) {
            result_.wigle = true;
            lines_.next(line);
        }
        auto header = splitFields(line);
        if (!header) {
            result_.error = "line " + std::to_string(lines_.number()) + ": malformed header";
            return std::move(result_);
        }
        if (result_.wigle) {
            readWigle(*header);
        } else {
            readPlain(*header);
        }
        return std::move(result_);
    }

  private:
    void issue(const std::string& message) { result_.issues.push_back({lines_.number(), message}); }

    // The fields of the next non-blank line, false at the end; reports malformed lines.
    bool nextRow(std::vector<std::string>& fields, size_t columnCount) {
        std::string_view line;
        while (lines_.next(line)) {
            if (trim(line).empty()) {
                continue;
            }
            auto split = splitFields(line);
            if (!split) {
                issue("unterminated quote");
            } else if (split->size() != columnCount) {
                issue("expected " + std::to_string(columnCount) + " fields, found " +
                      std::to_string(split->size()));
            } else {
                fields = std::move(*split);
                return true;
            }
        }
        return false;
    }

    void readPlain(const std::vector<std::string>& header) {
        std::vector<int> at =
            columnsOf(header, {"mac", "latitude", "longitude", "quality", "signal_exponent"});
        if (at[0] < 0 || at[1] < 0 || at[2] < 0) {
            result_.error = "the header must name mac, latitude and longitude";
            return;
        }
        std::vector<std::string> fields;
        while (nextRow(fields, header.size())) {
            AccessPointPosition ap;
            auto mac = Core::parseMacText(trim(fields[at[0]]));
            auto latitude = parseNumber(fields[at[1]]), longitude = parseNumber(fields[at[2]]);
            auto quality = at[3] < 0 ? std::optional(kDefaultQuality) : parseCount(fields[at[3]]);
            auto exponent =
                at[4] < 0 ? std::optional(kDefaultExponent) : parseNumber(fields[at[4]]);
            if (!mac) {
                issue("invalid MAC '" + fields[at[0]] + "'");
            } else if (auto problem = checkPosition(latitude, longitude)) {
                issue(*problem);
            } else if (!quality || !exponent) {
                issue("quality must be a whole number and signal_exponent a number");
            } else {
                result_.accessPoints.push_back({*mac, *latitude, *longitude, *quality, *exponent});
            }
        }
    }

    struct Weighted {
        Core::MacAddress mac;
        double weight = 0, latitude = 0, longitude = 0;
    };

    void readWigle(const std::vector<std::string>& header) {
        std::vector<int> at =
            columnsOf(header, {"mac", "rssi", "currentlatitude", "currentlongitude", "type"});
        if (at[0] < 0 || at[1] < 0 || at[2] < 0 || at[3] < 0) {
            result_.error = "the header must name MAC, RSSI, CurrentLatitude and CurrentLongitude";
            return;
        }
        std::vector<Weighted> sums;
        std::unordered_map<uint64_t, size_t> positionOf;
        std::vector<std::string> fields;
        while (nextRow(fields, header.size())) {
            if (at[4] >= 0 && lower(trim(fields[at[4]])) != "wifi") {
                continue;  // Bluetooth and cell rows are normal in an export
            }
            auto mac = Core::parseMacText(trim(fields[at[0]]));
            auto rss = parseNumber(fields[at[1]]);
            auto latitude = parseNumber(fields[at[2]]), longitude = parseNumber(fields[at[3]]);
            if (!mac) {
                issue("invalid MAC '" + fields[at[0]] + "'");
            } else if (!rss) {
                issue("RSSI must be a number");
            } else if (auto problem = checkPosition(latitude, longitude)) {
                issue(*problem);
            } else if (*latitude == 0 && *longitude == 0) {
                issue("no position fix");
            } else {
                double weight =
                    std::pow(10.0, (*rss < 0 ? std::max(*rss, -200.0) : kUnknownRss) / 10);
                uint64_t key = 0;
                for (uint8_t byte : *mac) {
                    key = key << 8 | byte;
                }
                auto [it, inserted] = positionOf.emplace(key, sums.size());
                if (inserted) {
                    sums.push_back({*mac});
                }
                Weighted& sum = sums[it->second];
                sum.weight += weight;
                sum.latitude += weight * *latitude;
                sum.longitude += weight * *longitude;
            }
        }
        for (const Weighted& sum : sums) {
            // Rounding may carry a mean of values on the limit just past it.
            result_.accessPoints.push_back({sum.mac,
                                            std::clamp(sum.latitude / sum.weight, -90.0, 90.0),
                                            std::clamp(sum.longitude / sum.weight, -180.0, 180.0),
                                            kDefaultQuality, kDefaultExponent});
        }
    }

    Lines lines_;
    ApCsvResult result_;
};

}  // namespace

ApCsvResult parseAccessPointCsv(std::string_view text) {
    return Parser(text).run();
}

}  // namespace ZEL::Tiles

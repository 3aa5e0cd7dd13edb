#include "tiles/ap_csv.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <optional>

#include "core/number_text.h"
#include "core/text_reader.h"

namespace ZEL::Tiles {
namespace {

constexpr uint32_t kDefaultQuality = 50;
constexpr double kDefaultExponent = 0.25;

std::optional<uint32_t> parseCount(std::string_view text) {
    uint32_t value = 0;
    return Core::parseUnsigned(text, value) ? std::optional(value) : std::nullopt;
}

// Positions of the named columns; -1 for a column not there.
std::vector<int> columnsOf(const Core::ColumnMap& header, const std::vector<std::string>& names) {
    std::vector<int> columns;
    for (const std::string& name : names) {
        std::optional<size_t> column = header.find(name);
        columns.push_back(column ? static_cast<int>(*column) : -1);
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
    explicit Parser(std::string_view text) : reader_(text) {}

    ApCsvResult run() {
        std::string_view line;
        if (!reader_.nextLine(line)) {
            result_.error = "no header line";
            return std::move(result_);
        }
        Core::CsvRecord header = Core::splitCsvLine(line);
        if (!header.error.empty()) {
            result_.error = reader_.lineMessage("malformed header: " + header.error);
            return std::move(result_);
        }
        readPlain(header.fields);
        return std::move(result_);
    }

  private:
    void issue(const std::string& message) {
        result_.issues.push_back({reader_.lineNumber(), message});
    }

    // The fields of the next non-blank line, false at the end; reports malformed lines.
    bool nextRow(std::vector<std::string>& fields, size_t columnCount) {
        Core::CsvRecord record;
        while (reader_.nextRecord(record)) {
            if (!record.error.empty()) {
                issue(record.error);
            } else if (record.fields.size() != columnCount) {
                issue("expected " + std::to_string(columnCount) + " fields, found " +
                      std::to_string(record.fields.size()));
            } else {
                fields = std::move(record.fields);
                return true;
            }
        }
        return false;
    }

    void readPlain(const std::vector<std::string>& header) {
        Core::ColumnMap columns(header, Core::ColumnMap::NameCase::IgnoreAscii);
        std::vector<int> at =
            columnsOf(columns, {"mac", "latitude", "longitude", "quality", "signal_exponent"});
        if (at[0] < 0 || at[1] < 0 || at[2] < 0) {
            result_.error = "the header must name mac, latitude and longitude";
            return;
        }
        std::vector<std::string> fields;
        while (nextRow(fields, header.size())) {
            auto mac = Core::parseMacText(fields[at[0]]);
            auto latitude = Core::parseFiniteDouble(fields[at[1]]),
                 longitude = Core::parseFiniteDouble(fields[at[2]]);
            auto quality = at[3] < 0 ? std::optional(kDefaultQuality) : parseCount(fields[at[3]]);
            auto exponent = at[4] < 0 ? std::optional(kDefaultExponent)
                                      : Core::parseFiniteDouble(fields[at[4]]);
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

    Core::TextReader reader_;
    ApCsvResult result_;
};

}  // namespace

ApCsvResult parseAccessPointCsv(std::string_view text) {
    return Parser(text).run();
}

}  // namespace ZEL::Tiles

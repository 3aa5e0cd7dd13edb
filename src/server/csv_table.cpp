#include "server/csv_table.h"

#include <algorithm>

namespace ZEL::Server {
namespace {

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    const size_t last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// Reads a quoted field starting after its opening quote at `i`; leaves `i` past
// the closing quote. False when the quote never closes.
bool readQuoted(std::string_view line, size_t& i, std::string& field) {
    while (i < line.size()) {
        const char c = line[i++];
        if (c != '"') {
            field += c;
        } else if (i < line.size() && line[i] == '"') {
            field += '"';
            ++i;
        } else {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<std::vector<std::string>> splitCsvRecord(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    std::vector<std::string> fields;
    size_t i = 0;
    while (true) {
        const size_t start = i;
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) {
            ++i;
        }
        if (i < line.size() && line[i] == '"') {
            std::string field;
            ++i;
            if (!readQuoted(line, i, field)) {
                return std::nullopt;
            }
            const size_t comma = line.find(',', i);
            if (!trimmed(line.substr(i, comma - i)).empty()) {
                return std::nullopt;
            }
            fields.push_back(std::move(field));
            i = comma;
        } else {
            const size_t comma = line.find(',', start);
            fields.emplace_back(trimmed(line.substr(start, comma - start)));
            i = comma;
        }
        if (i == std::string_view::npos) {
            return fields;
        }
        ++i;  // past the comma
    }
}

bool CsvTable::readHeader(std::istream& in, const std::vector<std::string>& required,
                          std::string& error) {
    std::vector<std::string> names;
    bool malformed = false;
    if (!next(in, names, malformed)) {
        error = "no header line";
        return false;
    }
    if (malformed) {
        error = "malformed header line";
        return false;
    }
    for (size_t i = 0; i < names.size(); ++i) {
        columns_.emplace(names[i], i);
    }
    for (const std::string& name : required) {
        if (columns_.count(name) == 0) {
            error = "no column \"" + name + "\"";
            return false;
        }
    }
    return true;
}

bool CsvTable::next(std::istream& in, std::vector<std::string>& fields, bool& malformed) {
    std::string line;
    while (std::getline(in, line)) {
        ++lineNumber_;
        if (trimmed(line).empty() || trimmed(line) == "\r") {
            continue;
        }
        std::optional<std::vector<std::string>> split = splitCsvRecord(line);
        malformed = !split.has_value();
        fields = split ? std::move(*split) : std::vector<std::string>{};
        return true;
    }
    return false;
}

std::string CsvTable::field(const std::vector<std::string>& fields, const std::string& name) const {
    auto column = columns_.find(name);
    if (column == columns_.end() || column->second >= fields.size()) {
        return {};
    }
    return fields[column->second];
}

Core::StreetAddress CsvTable::address(const std::vector<std::string>& fields) const {
    Core::StreetAddress address;
    address.streetNumber = field(fields, "street_number");
    const std::string lines = field(fields, "address_lines");
    for (size_t start = 0; !lines.empty() && start <= lines.size();) {
        const size_t bar = std::min(lines.find('|', start), lines.size());
        if (bar > start) {
            address.addressLines.push_back(lines.substr(start, bar - start));
        }
        start = bar + 1;
    }
    address.city = field(fields, "city");
    address.postalCode = field(fields, "postal_code");
    address.county = field(fields, "county");
    address.province = field(fields, "province");
    address.region = field(fields, "region");
    address.state = field(fields, "state");
    address.stateCode = field(fields, "state_code");
    address.country = field(fields, "country");
    address.countryCode = field(fields, "country_code");
    return address;
}

}  // namespace ZEL::Server

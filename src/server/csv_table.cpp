#include "server/csv_table.h"

#include <algorithm>

namespace ZEL::Server {

std::optional<std::vector<std::string>> splitCsvRecord(std::string_view line) {
    Core::CsvRecord record = Core::splitCsvLine(line);
    if (!record.error.empty()) {
        return std::nullopt;
    }
    return std::move(record.fields);
}

bool CsvTable::readHeader(const std::vector<std::string>& required, std::string& error) {
    Core::CsvRecord header;
    if (!reader_.nextRecord(header)) {
        error = "no header line";
        return false;
    }
    if (!header.error.empty()) {
        error = "malformed header line";
        return false;
    }
    columns_ = Core::ColumnMap(header.fields, Core::ColumnMap::NameCase::Exact);
    if (std::optional<std::string> missing = columns_.firstMissing(required)) {
        error = "no column \"" + *missing + "\"";
        return false;
    }
    return true;
}

bool CsvTable::next(std::vector<std::string>& fields, bool& malformed) {
    Core::CsvRecord record;
    if (!reader_.nextRecord(record)) {
        return false;
    }
    malformed = !record.error.empty();
    fields = std::move(record.fields);
    return true;
}

std::string CsvTable::field(const std::vector<std::string>& fields, std::string_view name) const {
    return std::string(columns_.field(fields, name));
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

// The CSV tables the server loads (IP ranges, street addresses): a header row that
// names the columns (case counts), in any order, then one record per line, read by
// the rules of core/text_reader.h. Both tables share the address columns:
//   street_number, address_lines (lines separated by '|'), city, postal_code,
//   county, province, region, state, state_code, country, country_code
// each optional.
#pragma once

#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/location_record.h"
#include "core/text_reader.h"

namespace ZEL::Server {

// The fields of one line, or nullopt when it is malformed (Core::splitCsvLine).
std::optional<std::vector<std::string>> splitCsvRecord(std::string_view line);

class CsvTable {
  public:
    // Reads `in`, which must outlive the table.
    explicit CsvTable(std::istream& in) : reader_(in) {}

    // Reads the header line; `error` says why when it returns false (empty input,
    // bad quoting, a required column missing).
    bool readHeader(const std::vector<std::string>& required, std::string& error);
    // The next non-blank record; false at the end. A malformed line is returned
    // with `malformed` set, so the caller can report its number and go on.
    bool next(std::vector<std::string>& fields, bool& malformed);
    size_t lineNumber() const { return reader_.lineNumber(); }

    // The field of column `name`, empty when the file has no such column or the
    // record is short.
    std::string field(const std::vector<std::string>& fields, std::string_view name) const;
    // The address columns of a record.
    Core::StreetAddress address(const std::vector<std::string>& fields) const;

  private:
    Core::TextReader reader_;
    Core::ColumnMap columns_;
};

}  // namespace ZEL::Server

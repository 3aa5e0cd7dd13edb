// The CSV files the server loads (IP ranges, street addresses): a header row that
// names the columns, in any order, then one record per line.
//
// Fields follow the common quoting rules: a field in double quotes may hold commas,
// and "" stands for one quote inside it; a record never spans lines. Spaces around
// an unquoted field are trimmed. Both files share the address columns:
//   street_number, address_lines (lines separated by '|'), city, postal_code,
//   county, province, region, state, state_code, country, country_code
// each optional.
#pragma once

#include <istream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/location_record.h"

namespace ZEL::Server {

// The fields of one line, or nullopt when a quote is left open or stray text
// follows a closing quote. A trailing '\r' is dropped.
std::optional<std::vector<std::string>> splitCsvRecord(std::string_view line);

class CsvTable {
  public:
    // Reads the header line of `in`; `error` says why when it returns false
    // (empty input, bad quoting, a required column missing).
    bool readHeader(std::istream& in, const std::vector<std::string>& required, std::string& error);
    // The next non-blank record; false at the end. A malformed line is returned
    // with `malformed` set, so the caller can report its number and go on.
    bool next(std::istream& in, std::vector<std::string>& fields, bool& malformed);
    size_t lineNumber() const { return lineNumber_; }

    // The field of column `name`, empty when the file has no such column or the
    // record is short.
    std::string field(const std::vector<std::string>& fields, const std::string& name) const;
    // The address columns of a record.
    Core::StreetAddress address(const std::vector<std::string>& fields) const;

  private:
    std::map<std::string, size_t> columns_;
    size_t lineNumber_ = 0;
};

}  // namespace ZEL::Server

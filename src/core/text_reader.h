// Lines and CSV records read from untrusted text (the tile builder's CSV input,
// the simulator's files, the server's tables), numbered for messages.
//
// Lines end at '\n'; a '\r' just before it (CRLF) or at the very end is dropped.
// Lines are numbered from 1. A line that is empty or holds only spaces and tabs is
// blank: the readers skip it, but it still counts in the numbering.
//
// A CSV record is one line of fields separated by commas. What a field may be:
//   - unquoted: the text up to the next comma, spaces and tabs around it dropped;
//     a double quote inside it (not at its start) is an ordinary character;
//   - quoted: a double quote at its start (after spaces) opens it, and the field
//     runs to the closing quote; it may hold commas, "" stands for one quote, and
//     the spaces inside are kept. Spaces and tabs may follow the closing quote.
// A line is malformed, and reported rather than split, when a quote is still open
// at the end of the line (a record never spans lines, so one stray quote cannot
// swallow the rest of the file), or when other text follows a closing quote.
#pragma once

#include <cstddef>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ZEL::Core {

struct CsvRecord {
    std::vector<std::string> fields;  // empty when the line is malformed
    std::string error;                // why the line is malformed; empty otherwise
};

// Splits one line (without its '\n'; a trailing '\r' is dropped). A blank line is
// one empty field.
CsvRecord splitCsvLine(std::string_view line);

class TextReader {
  public:
    // Reads `text`, which must outlive the reader.
    explicit TextReader(std::string_view text) : text_(text) {}
    // Reads `in` line by line; the stream must outlive the reader.
    explicit TextReader(std::istream& in) : in_(&in) {}

    // The next line that is not blank, without its line end; false at the end.
    // `line` stays valid until the next call.
    bool nextLine(std::string_view& line);
    // The next line that is not blank, split; false at the end. A malformed line
    // comes back too, with its `error` set, so the caller can report it and go on.
    bool nextRecord(CsvRecord& record);

    // The number of the line returned last; 0 before the first.
    size_t lineNumber() const { return lineNumber_; }
    // "line N: message", N being lineNumber().
    std::string lineMessage(std::string_view message) const;

  private:
    bool nextRawLine(std::string_view& line);

    std::string_view text_;
    size_t position_ = 0;
    std::istream* in_ = nullptr;
    std::string buffer_;
    size_t lineNumber_ = 0;
};

// The columns of a header record, found by name. Of two columns with one name the
// first counts.
class ColumnMap {
  public:
    enum class NameCase { Exact, IgnoreAscii };

    ColumnMap() = default;
    ColumnMap(const std::vector<std::string>& header, NameCase nameCase);

    // The index of column `name`.
    std::optional<size_t> find(std::string_view name) const;
    // The first of `names` that no column has; nullopt when all are there.
    std::optional<std::string> firstMissing(const std::vector<std::string>& names) const;
    // The field of column `name` in `fields`; empty when there is no such column
    // or the record is too short to reach it.
    std::string_view field(const std::vector<std::string>& fields, std::string_view name) const;
    // How many columns the header has.
    size_t size() const { return names_.size(); }

  private:
    std::string key(std::string_view name) const;

    std::vector<std::string> names_;  // as compared: lower-cased when case is ignored
    NameCase nameCase_ = NameCase::Exact;
};

}  // namespace ZEL::Core

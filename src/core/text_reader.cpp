#include "core/text_reader.h"

#include <algorithm>

namespace ZEL::Core {
namespace {

constexpr std::string_view kSpaces = " \t";

bool isBlank(std::string_view line) {
    return line.find_first_not_of(kSpaces) == std::string_view::npos;
}

std::string_view withoutCarriageReturn(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(kSpaces);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

// Reads the quoted field whose opening quote is just before `i`; leaves `i` past
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

CsvRecord splitCsvLine(std::string_view line) {
    line = withoutCarriageReturn(line);
    CsvRecord record;
    size_t start = 0;
    while (true) {
        const size_t first = std::min(line.find_first_not_of(kSpaces, start), line.size());
        size_t end = line.find(',', start);
        if (first < line.size() && line[first] == '"') {
            std::string field;
            size_t i = first + 1;
            if (!readQuoted(line, i, field)) {
                return {{}, "unterminated quote"};
            }
            end = line.find(',', i);
            if (!trimmed(line.substr(i, end - i)).empty()) {
                return {{}, "text after a closing quote"};
            }
            record.fields.push_back(std::move(field));
        } else {
            record.fields.emplace_back(trimmed(line.substr(start, end - start)));
        }
        if (end == std::string_view::npos) {
            return record;
        }
        start = end + 1;
    }
}

bool TextReader::nextRawLine(std::string_view& line) {
    if (in_ != nullptr) {
        if (!std::getline(*in_, buffer_)) {
            return false;
        }
        line = buffer_;
    } else {
        if (position_ >= text_.size()) {
            return false;
        }
        const size_t end = std::min(text_.find('\n', position_), text_.size());
        line = text_.substr(position_, end - position_);
        position_ = end + 1;
    }
    ++lineNumber_;
    line = withoutCarriageReturn(line);
    return true;
}

bool TextReader::nextLine(std::string_view& line) {
    while (nextRawLine(line)) {
        if (!isBlank(line)) {
            return true;
        }
    }
    return false;
}

bool TextReader::nextRecord(CsvRecord& record) {
    std::string_view line;
    if (!nextLine(line)) {
        return false;
    }
    record = splitCsvLine(line);
    return true;
}

std::string TextReader::lineMessage(std::string_view message) const {
    return "line " + std::to_string(lineNumber_) + ": " + std::string(message);
}

ColumnMap::ColumnMap(const std::vector<std::string>& header, NameCase nameCase)
    : nameCase_(nameCase) {
    for (const std::string& name : header) {
        names_.push_back(key(name));
    }
}

std::string ColumnMap::key(std::string_view name) const {
    std::string result(name);
    if (nameCase_ == NameCase::IgnoreAscii) {
        for (char& c : result) {
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        }
    }
    return result;
}

std::optional<size_t> ColumnMap::find(std::string_view name) const {
    const auto it = std::find(names_.begin(), names_.end(), key(name));
    if (it == names_.end()) {
        return std::nullopt;
    }
    return static_cast<size_t>(it - names_.begin());
}

std::optional<std::string> ColumnMap::firstMissing(const std::vector<std::string>& names) const {
    for (const std::string& name : names) {
        if (!find(name)) {
            return name;
        }
    }
    return std::nullopt;
}

std::string_view ColumnMap::field(const std::vector<std::string>& fields,
                                  std::string_view name) const {
    const std::optional<size_t> column = find(name);
    if (!column || *column >= fields.size()) {
        return {};
    }
    return fields[*column];
}

}  // namespace ZEL::Core

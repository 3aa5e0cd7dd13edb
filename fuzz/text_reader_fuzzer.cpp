// Reads arbitrary text as CSV records, from memory and from a stream, and checks
// what must hold for any input: both readers see the same records on the same
// lines, numbers only grow, a record written back with every field quoted splits
// into the same fields, and the header's column map finds every header name.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "core/text_reader.h"

using namespace ZEL::Core;

namespace {

std::string quotedLine(const std::vector<std::string>& fields) {
    std::string line;
    for (size_t i = 0; i < fields.size(); ++i) {
        line += i == 0 ? "\"" : ",\"";
        for (char c : fields[i]) {
            line += c == '"' ? "\"\"" : std::string(1, c);
        }
        line += '"';
    }
    return line;
}

void checkRecord(const CsvRecord& record) {
    if (record.error.empty() == record.fields.empty()) {
        std::abort();  // a record has fields or an error, never both or neither
    }
    if (!record.error.empty()) {
        return;
    }
    const CsvRecord again = splitCsvLine(quotedLine(record.fields));
    if (!again.error.empty() || again.fields != record.fields) {
        std::abort();  // quoting a field does not give it back
    }
}

void checkHeader(const std::vector<std::string>& header) {
    for (ColumnMap::NameCase nameCase :
         {ColumnMap::NameCase::Exact, ColumnMap::NameCase::IgnoreAscii}) {
        const ColumnMap columns(header, nameCase);
        for (size_t i = 0; i < header.size(); ++i) {
            const std::optional<size_t> column = columns.find(header[i]);
            if (!column || *column > i ||
                (nameCase == ColumnMap::NameCase::Exact && header[*column] != header[i])) {
                std::abort();  // a header name that the map does not find first
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::istringstream stream{std::string(text)};
    TextReader fromText(text);
    TextReader fromStream(stream);
    CsvRecord record;
    CsvRecord streamed;
    size_t lastLine = 0;
    while (fromText.nextRecord(record)) {
        if (!fromStream.nextRecord(streamed) || streamed.fields != record.fields ||
            streamed.error != record.error || fromStream.lineNumber() != fromText.lineNumber() ||
            fromText.lineNumber() <= lastLine) {
            std::abort();  // the two sources disagree, or the numbering went back
        }
        if (lastLine == 0 && record.error.empty()) {
            checkHeader(record.fields);
        }
        lastLine = fromText.lineNumber();
        checkRecord(record);
    }
    if (fromStream.nextRecord(streamed)) {
        std::abort();  // the stream has a record more than the text
    }
    return 0;
}

// The text reader every CSV and line-based input goes through: quoting, trimming,
// line ends and numbers, and the header's column map.
#include "core/text_reader.h"

#include <gtest/gtest.h>

namespace ZEL::Core {
namespace {

using Fields = std::vector<std::string>;

TEST(SplitCsvLine, QuotingAndTrimming) {
    struct Row {
        const char* line;
        Fields fields;
        const char* error;
    };
    const Row rows[] = {
        {" a , b\t,\tc ", {"a", "b", "c"}, ""},
        {",,", {"", "", ""}, ""},
        {"", {""}, ""},
        {"a,b\r", {"a", "b"}, ""},
        {"\"x, y\",z", {"x, y", "z"}, ""},
        {"\"say \"\"hi\"\"\"", {"say \"hi\""}, ""},
        {"\"\",\"\"\"\"", {"", "\""}, ""},
        {"  \" in \" \t,b", {" in ", "b"}, ""},
        {"ab\"c,d\"", {"ab\"c", "d\""}, ""},  // a quote inside a field is a character
        {"\"open", {}, "unterminated quote"},
        {"a,\"open,\"\"", {}, "unterminated quote"},  // "" escapes, never closes
        {"\"closed\"junk,b", {}, "text after a closing quote"},
        {"a,\"b\" c", {}, "text after a closing quote"},
    };
    for (const Row& row : rows) {
        const CsvRecord record = splitCsvLine(row.line);
        EXPECT_EQ(record.fields, row.fields) << row.line;
        EXPECT_EQ(record.error, row.error) << row.line;
    }
}

struct NumberedRecord {
    size_t line;
    Fields fields;
    std::string error;
    bool operator==(const NumberedRecord&) const = default;
};

std::vector<NumberedRecord> readAll(TextReader& reader) {
    std::vector<NumberedRecord> records;
    CsvRecord record;
    while (reader.nextRecord(record)) {
        records.push_back({reader.lineNumber(), record.fields, record.error});
    }
    return records;
}

TEST(TextReader, LineEndsBlankLinesAndNumbers) {
    struct Row {
        const char* text;
        std::vector<NumberedRecord> records;
    };
    const Row rows[] = {
        {"", {}},
        {"\n \n\t\r\n\r", {}},
        {"a\r\nb,c\r\n", {{1, {"a"}, ""}, {2, {"b", "c"}, ""}}},
        {"\n  \n\t\r\nx\n\n", {{4, {"x"}, ""}}},
        // A record never spans lines: an open quote spoils its own line only.
        {"\"open\nnext\"", {{1, {}, "unterminated quote"}, {2, {"next\""}, ""}}},
        {"\"a\" ,b \r\n\"\"\"\"", {{1, {"a", "b"}, ""}, {2, {"\""}, ""}}},
    };
    for (const Row& row : rows) {  // the fuzzer checks that a stream reads alike
        TextReader reader(row.text);
        EXPECT_EQ(readAll(reader), row.records) << row.text;
    }
}

TEST(TextReader, LinesComeWholeAndMessagesCarryTheLineNumber) {
    TextReader reader("first\r\n\n  third  \n");
    std::string_view line;
    ASSERT_TRUE(reader.nextLine(line) && reader.nextLine(line));
    EXPECT_EQ(line, "  third  ");  // only fields are trimmed
    EXPECT_EQ(reader.lineMessage("bad row"), "line 3: bad row");
    EXPECT_FALSE(reader.nextLine(line));
}

TEST(ColumnMap, FindsColumnsByName) {
    const Fields header = {"mac", "Latitude", "", "mac", "LONGITUDE"};
    const ColumnMap exact(header, ColumnMap::NameCase::Exact);
    const ColumnMap ignoring(header, ColumnMap::NameCase::IgnoreAscii);
    struct Row {
        const char* name;
        std::optional<size_t> exact, ignoring;
    };
    const Row rows[] = {
        {"mac", 0, 0},  // of two columns with one name the first counts
        {"Latitude", 1, 1}, {"latitude", std::nullopt, 1},           {"longitude", std::nullopt, 4},
        {"", 2, 2},         {"quality", std::nullopt, std::nullopt},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(exact.find(row.name), row.exact) << row.name;
        EXPECT_EQ(ignoring.find(row.name), row.ignoring) << row.name;
    }
    EXPECT_EQ(exact.firstMissing({"mac", "latitude", "type", "quality"}), "latitude");
    EXPECT_EQ(ignoring.firstMissing({"mac", "latitude", "type", "quality"}), "type");
    EXPECT_EQ(ignoring.firstMissing({"MAC", "longitude"}), std::nullopt);
    // A field is empty for a missing column or a short record.
    EXPECT_EQ(exact.field({"1", "2", "3", "4", "5", "6"}, "LONGITUDE"), "5");
    EXPECT_EQ(exact.field({"1", "2", "3", "4"}, "LONGITUDE"), "");
}

}  // namespace
}  // namespace ZEL::Core

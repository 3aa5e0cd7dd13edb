// The tile builder's CSV input: defaults, and every kind of bad line.
#include <gtest/gtest.h>

#include "tiles/ap_csv.h"

namespace ZEL::Tiles {
namespace {

std::vector<size_t> issueLines(const ApCsvResult& result) {
    std::vector<size_t> lines;
    for (const CsvIssue& issue : result.issues) {
        lines.push_back(issue.line);
    }
    return lines;
}

TEST(ApCsvPlain, ReadsColumnsByNameWithDefaultsAndSkipsMalformedLines) {
    ApCsvResult result = parseAccessPointCsv(
        "longitude, MAC ,latitude\r\n"
        "11.5,AA:BB:CC:DD:EE:FF,48.25\r\n"
        "\n"
        "1,AABBCCDDEEF,2\n"        // 4: eleven digits
        "2,AABBCCDDEEFF,91\n"      // 5: latitude out of range
        "-180.5,AABBCCDDEEFF,1\n"  // 6: longitude out of range
        "2,AABBCCDDEEFF,1x\n"      // 7: not a number
        "nan,AABBCCDDEEFF,1\n"     // 8: not finite
        "2,AABBCCDDEEFF\n"         // 9: a field short
        "\"2,AABBCCDDEEFF,1\n"     // 10: unterminated quote
        "-0.125,aa-bb-cc-dd-ee-01,-33.5\n");
    ASSERT_TRUE(result.error.empty());
    ASSERT_EQ(result.accessPoints.size(), 2u);
    const AccessPointPosition& first = result.accessPoints[0];
    EXPECT_EQ(Core::macText(first.mac), "AABBCCDDEEFF");
    EXPECT_EQ(first.latitude, 48.25);
    EXPECT_EQ(first.longitude, 11.5);
    EXPECT_EQ(first.quality, 50u);
    EXPECT_EQ(first.signalExponent, 0.25);
    EXPECT_EQ(Core::macText(result.accessPoints[1].mac), "AABBCCDDEE01");
    EXPECT_EQ(issueLines(result), (std::vector<size_t>{4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(result.issues[0].message, "invalid MAC 'AABBCCDDEEF'");
    EXPECT_EQ(result.issues[5].message, "expected 3 fields, found 2");

    result = parseAccessPointCsv(
        "mac,latitude,longitude,quality,signal_exponent\n"
        "001122334455,1,2,33,0.4\n"
        "001122334455,1,2,-3,0.4\n");
    ASSERT_EQ(result.accessPoints.size(), 1u);
    EXPECT_EQ(result.accessPoints[0].quality, 33u);
    EXPECT_EQ(result.accessPoints[0].signalExponent, 0.4);
    EXPECT_EQ(issueLines(result), (std::vector<size_t>{3}));  // a negative quality
    for (const char* text : {"", "mac,lat,lon\nAABBCCDDEEFF,1,2\n", "\"mac,latitude,longitude\n"}) {
        EXPECT_FALSE(parseAccessPointCsv(text).error.empty()) << text;
    }
}

}  // namespace
}  // namespace ZEL::Tiles

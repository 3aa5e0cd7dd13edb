// The server's answer documents and the data files they draw on.
#include <gtest/gtest.h>

#include <sstream>

#include "server/answer_writer.h"
#include "server/csv_table.h"
#include "server/ip_ranges.h"
#include "server/street_address_index.h"

namespace ZEL::Server {
namespace {

TEST(EscapeXml, MarkupInvalidCharactersAndBrokenUtf8) {
    // Each bad byte of broken UTF-8 (lone continuation byte, truncated sequence,
    // overlong '<', encoded surrogate, beyond U+10FFFF) becomes U+FFFD, so '<' cannot
    // sneak in; U+FFFE is well-formed UTF-8 but no XML character.
    const std::string bad = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> rows[] = {
        {"a<b>&'\"c", "a&lt;b&gt;&amp;&apos;&quot;c"},
        {"tab\tline\nbell\x07nul" + std::string(1, '\0') + "end", "tab\tline\nbellnulend"},
        {"Z\xC3\xBCrich \xE2\x82\xAC \xF0\x9F\x93\x8D",
         "Z\xC3\xBCrich \xE2\x82\xAC \xF0\x9F\x93\x8D"},
        {"\x80", bad},
        {"a\xE2\x82", "a" + bad + bad},
        {"\xC0\xBC", bad + bad},
        {"\xED\xA0\x80", bad + bad + bad},
        {"\xF4\x90\x80\x80", bad + bad + bad + bad},
        {"x\xEF\xBF\xBEy", "xy"},
    };
    for (const auto& [text, escaped] : rows) {
        EXPECT_EQ(escapeXml(text), escaped) << text;
    }
}

TEST(IpRangeTable, LookupEdgesFamiliesAndBadRows) {
    std::istringstream csv(
        "latitude,first,last,longitude,city\n"
        "1,10.0.0.0,10.0.0.255,1,A\n"
        "2,10.0.1.0,10.0.1.0,2,B\n"
        "3,2001:db8::,2001:db8::ffff,3,C\n"
        "4,10.0.0.128,10.0.0.200,4,overlaps A\n"
        "5,10.0.2.9,10.0.2.1,5,backwards\n"
        "6,10.0.3.0,2001:db8:1::,6,mixed families\n"
        "91,10.0.4.0,10.0.4.1,7,bad latitude\n"
        "\"8,10.0.5.0,10.0.5.1,8,open quote\n");
    std::string error;
    auto ranges = IpRanges::read(csv, "ranges.csv", error);
    ASSERT_NE(ranges, nullptr) << error;
    EXPECT_EQ(ranges->size(), 3u);

    // Address and city; "::ffff:10.0.0.7" is how a dual-stack socket reports IPv4.
    std::istringstream rows(
        "10.0.0.0 A 10.0.0.255 A 10.0.1.0 B 10.0.1.1 - 9.255.255.255 - ::ffff:10.0.0.7 A "
        "2001:db8::abcd C 2001:db8::1:0 - 10.0.0 -");
    for (std::string address, city; rows >> address >> city;) {
        const IpRange* range = ranges->find(address);
        EXPECT_EQ(range ? range->address.city : "-", city) << address;
    }

    std::istringstream noColumn("first,last,latitude\n");
    EXPECT_EQ(IpRanges::read(noColumn, "x.csv", error), nullptr);
}

TEST(StreetAddressPoints, NearestWithinTheRadius) {
    // Points 100 m, 150 m and 1 km north of 60 N 25 E, and one across the grid
    // line east of it.
    std::istringstream csv(
        "latitude,longitude,city,street_number,postal_code,country\n"
        "60.000898,25,hundred,1,00100,FI\n"
        "60.001347,25,one-fifty,2,00100,FI\n"
        "60.008983,25,kilometre,3,00100,FI\n"
        "60,25.0030,east,4,00100,FI\n"
        "nonsense,25,bad,5,,\n");
    std::string error;
    auto index = StreetAddressIndex::read(csv, "a.csv", 200.0, error);
    ASSERT_NE(index, nullptr) << error;
    EXPECT_EQ(index->size(), 4u);
    auto cityNear = [&](double latitude, double longitude) {
        const AddressPoint* point = index->nearest(latitude, longitude);
        return (point ? point->address.city : std::string("-")) + " ";
    };
    // 72 m east is in the next column of cells; 60.0045 N is 350 m from both sides.
    EXPECT_EQ(cityNear(60.0, 25.0) + cityNear(60.0012, 25.0) + cityNear(60.0, 25.0017) +
                  cityNear(60.0045, 25.0) + cityNear(60.0089, 25.0005),
              "hundred one-fifty east - kilometre ");

    EXPECT_EQ(StreetAddressIndex::read(csv, "a.csv", 0.0, error), nullptr);
}

}  // namespace
}  // namespace ZEL::Server

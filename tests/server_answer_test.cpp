// The server's answer documents and the data files they draw on.
#include <gtest/gtest.h>

#include <sstream>

#include "remote/response_parser.h"
#include "server/answer_writer.h"
#include "server/csv_table.h"
#include "server/ip_ranges.h"
#include "server/street_address_index.h"
#include "spi/xml/libxml2_parser.h"
#include "spi/xml_parser.h"
#include "support/log_capture.h"

namespace ZEL::Server {
namespace {

bool wellFormed(const std::string& document) {
    return SPI::newLibXml2Parser()->parse(document.data(), document.size()) != nullptr;
}

TEST(EscapeXml, MarkupInvalidCharactersAndBrokenUtf8) {
    EXPECT_EQ(escapeXml("a<b>&'\"c"), "a&lt;b&gt;&amp;&apos;&quot;c");
    EXPECT_EQ(escapeXml("tab\tline\nbell\x07nul" + std::string(1, '\0') + "end"),
              "tab\tline\nbellnulend");
    EXPECT_EQ(escapeXml("Z\xC3\xBCrich \xE2\x82\xAC \xF0\x9F\x93\x8D"),
              "Z\xC3\xBCrich \xE2\x82\xAC \xF0\x9F\x93\x8D");
    // Lone continuation byte, truncated sequence, overlong '<', encoded surrogate,
    // beyond U+10FFFF: each bad byte becomes U+FFFD, so '<' cannot sneak in.
    EXPECT_EQ(escapeXml("\x80"), "\xEF\xBF\xBD");
    EXPECT_EQ(escapeXml("a\xE2\x82"), "a\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(escapeXml("\xC0\xBC"), "\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(escapeXml("\xED\xA0\x80").substr(0, 3), "\xEF\xBF\xBD");
    EXPECT_EQ(escapeXml("\xF4\x90\x80\x80").substr(0, 3), "\xEF\xBF\xBD");
    // U+FFFE is well-formed UTF-8 but no XML character.
    EXPECT_EQ(escapeXml("x\xEF\xBF\xBEy"), "xy");
}

TEST(Answers, HostileTextStaysWellFormedAndReadsBack) {
    Core::StreetAddress address;
    address.streetNumber = "1 & 2";
    address.addressLines = {"</street-address>", "]]><x>", "\x01\xFF"};
    address.city = "O'Hare \"City\"";
    address.state = "Illinois";
    address.stateCode = "I'";
    address.country = "USA";
    address.countryCode = "US";
    Core::LocationRecord location;
    location.latitude = 41.978611;
    location.longitude = -87.904722;
    location.hpe = 12.5;
    location.nap = 65535;
    const std::string document = locationAnswer(location, address);
    ASSERT_TRUE(wellFormed(document)) << document;

    Core::LocationRecord read;
    ASSERT_EQ(Remote::parseLocationResponse(document, 2, read), Core::ResultCode::kOk);
    EXPECT_EQ(read.latitude, location.latitude);  // exact: shortest round-trip text
    EXPECT_EQ(read.longitude, location.longitude);
    EXPECT_EQ(read.hpe, 12.5);
    EXPECT_EQ(read.nap, 65535);
    EXPECT_EQ(read.streetAddress.streetNumber, "1 & 2");
    EXPECT_EQ(read.streetAddress.addressLines,
              (std::vector<std::string>{"</street-address>", "]]><x>", "\xEF\xBF\xBD"}));
    EXPECT_EQ(read.streetAddress.city, "O'Hare \"City\"");
    EXPECT_EQ(read.streetAddress.stateCode, "I'");
    EXPECT_EQ(read.streetAddress.countryCode, "US");
}

TEST(Answers, ErrorsAndRegistrationReadAsTheClientExpects) {
    const std::string error = errorAnswer(Question::Location, "x<y", "can't & won't");
    ASSERT_TRUE(wellFormed(error)) << error;
    Core::LocationRecord record;
    EXPECT_EQ(Remote::parseLocationResponse(error, 0, record), Core::ResultCode::kCannotDetermine);
    EXPECT_EQ(Remote::parseRegistrationResponse(errorAnswer(Question::Registration, "e", "m")),
              Core::ResultCode::kCannotDetermine);
    EXPECT_EQ(Remote::parseRegistrationResponse(registrationAnswer()), Core::ResultCode::kOk);
    EXPECT_TRUE(wellFormed(genericErrorAnswer("http-404", "<none>")));

    Core::IpLocationRecord ip;
    const std::string answer = ipLocationAnswer("::1", -33.9, 151.2, {});
    ASSERT_EQ(Remote::parseIPLocationResponse(answer, 2, ip), Core::ResultCode::kOk);
    EXPECT_EQ(ip.ip, "::1");
    EXPECT_EQ(ip.latitude, -33.9);
    EXPECT_TRUE(ip.streetAddress.empty());
    EXPECT_EQ(answer.find("street-address"), std::string::npos);
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
    Testing::LogCapture log("ZEL.Server.IpRanges");
    std::string error;
    auto ranges = IpRanges::read(csv, "ranges.csv", error);
    ASSERT_NE(ranges, nullptr) << error;
    EXPECT_EQ(ranges->size(), 3u);
    EXPECT_EQ(log.messages().size(), 5u);
    EXPECT_TRUE(log.contains("ranges.csv: line 5: overlaps another range (skipped)"));
    EXPECT_TRUE(log.contains("ranges.csv: line 9: malformed line (skipped)"));

    auto cityOf = [&](const char* address) {
        const IpRange* range = ranges->find(address);
        return range ? range->address.city : std::string("-");
    };
    EXPECT_EQ(cityOf("10.0.0.0"), "A");
    EXPECT_EQ(cityOf("10.0.0.255"), "A");
    EXPECT_EQ(cityOf("10.0.1.0"), "B");
    EXPECT_EQ(cityOf("10.0.1.1"), "-");
    EXPECT_EQ(cityOf("9.255.255.255"), "-");
    EXPECT_EQ(cityOf("::ffff:10.0.0.7"), "A");  // as a dual-stack socket reports it
    EXPECT_EQ(cityOf("2001:db8::abcd"), "C");
    EXPECT_EQ(cityOf("2001:db8::1:0"), "-");
    EXPECT_EQ(cityOf("10.0.0"), "-");

    std::istringstream noColumn("first,last,latitude\n");
    EXPECT_EQ(IpRanges::read(noColumn, "x.csv", error), nullptr);
    EXPECT_EQ(error, "x.csv: no column \"longitude\"");
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
        return point ? point->address.city : std::string("-");
    };
    EXPECT_EQ(cityNear(60.0, 25.0), "hundred");
    EXPECT_EQ(cityNear(60.0012, 25.0), "one-fifty");
    EXPECT_EQ(cityNear(60.0, 25.0017), "east");  // 72 m, in the next column of cells
    EXPECT_EQ(cityNear(60.0045, 25.0), "-");     // 350 m from both sides
    EXPECT_EQ(cityNear(60.0089, 25.0005), "kilometre");

    EXPECT_EQ(StreetAddressIndex::read(csv, "a.csv", 0.0, error), nullptr);
}

}  // namespace
}  // namespace ZEL::Server

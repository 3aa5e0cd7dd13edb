#include "remote/response_parser.h"

#include <gtest/gtest.h>

#include "remote/request_messages.h"
#include "spi/xml/libxml2_parser.h"

namespace ZEL::API {
namespace {

constexpr Core::ResultCode kOk = Core::ResultCode::kOk;
constexpr Core::ResultCode kCannot = Core::ResultCode::kCannotDetermine;

// An answer document in the request namespace around `body`.
std::string answer(const std::string& body, const std::string& root = "LocationRS") {
    return "<?xml version='1.0'?><" + root + " xmlns='" + Remote::kRequestNamespaceUri + "'>" +
           body + "</" + root + ">";
}

const std::string kFullAddress =
    "<street-address><street-number>12</street-number>"
    "<address-line>Line one</address-line><city>Springfield</city>"
    "<address-line>Line two</address-line><postal-code>01101</postal-code>"
    "<county>Hampden</county><province>P</province><region>New England</region>"
    "<state code='MA'>Massachusetts</state><country code='US'>United States</country>"
    "<address-line>Line three</address-line></street-address>";

const std::string kLocation =
    "<location nap='7'><latitude>42.1015</latitude>"
    "<longitude>-72.5898</longitude><hpe>25.5</hpe>" +
    kFullAddress + "</location>";

TEST(LocationResponse, ReadsEveryField) {
    Core::LocationRecord record;
    ASSERT_EQ(Remote::parseLocationResponse(answer(kLocation), 2, record), kOk);
    EXPECT_DOUBLE_EQ(record.latitude, 42.1015);
    EXPECT_DOUBLE_EQ(record.longitude, -72.5898);
    EXPECT_DOUBLE_EQ(record.hpe, 25.5);
    EXPECT_EQ(record.nap, 7);
    EXPECT_EQ(record.speed, -1.0);
    EXPECT_EQ(record.bearing, 0.0);
    const Core::StreetAddress& address = record.streetAddress;
    EXPECT_EQ(address.streetNumber, "12");
    EXPECT_EQ(address.addressLines,
              (std::vector<std::string>{"Line one", "Line two", "Line three"}));
    EXPECT_EQ(address.city, "Springfield");
    EXPECT_EQ(address.postalCode, "01101");
    EXPECT_EQ(address.county, "Hampden");
    EXPECT_EQ(address.province, "P");
    EXPECT_EQ(address.region, "New England");
    EXPECT_EQ(address.state, "Massachusetts");
    EXPECT_EQ(address.stateCode, "MA");
    EXPECT_EQ(address.country, "United States");
    EXPECT_EQ(address.countryCode, "US");
}

TEST(LocationResponse, LevelZeroIgnoresTheAddress) {
    Core::LocationRecord record;
    ASSERT_EQ(Remote::parseLocationResponse(answer(kLocation), 0, record), kOk);
    EXPECT_TRUE(record.streetAddress.empty());
    // Any non-zero level reads it, even one the server was sent as an empty value.
    Core::LocationRecord odd;
    ASSERT_EQ(Remote::parseLocationResponse(answer(kLocation), 7, odd), kOk);
    EXPECT_EQ(odd.streetAddress.city, "Springfield");
}

TEST(LocationResponse, MissingValuesReadAsZeroAndEmpty) {
    Core::LocationRecord record;
    ASSERT_EQ(Remote::parseLocationResponse(answer("<location><latitude>1.5</latitude></location>"),
                                            2, record),
              kOk);
    EXPECT_EQ(record.latitude, 1.5);
    EXPECT_EQ(record.longitude, 0.0);
    EXPECT_EQ(record.hpe, 0.0);
    EXPECT_EQ(record.nap, 0);
    EXPECT_EQ(record.speed, -1.0);
    EXPECT_TRUE(record.streetAddress.empty());
}

TEST(LocationResponse, NumbersFollowAtofAndAtoi) {
    Core::LocationRecord record;
    ASSERT_EQ(Remote::parseLocationResponse(
                  answer("<location nap='12abc'><latitude> 3.25xyz</latitude>"
                         "<longitude>east</longitude><hpe>1e2</hpe></location>"),
                  0, record),
              kOk);
    EXPECT_EQ(record.nap, 12);
    EXPECT_EQ(record.latitude, 3.25);
    EXPECT_EQ(record.longitude, 0.0);
    EXPECT_EQ(record.hpe, 100.0);

    // nap is kept as 16 bits: 65537 wraps to 1, -1 to 65535.
    Core::LocationRecord wrapped;
    ASSERT_EQ(Remote::parseLocationResponse(answer("<location nap='65537'/>"), 0, wrapped), kOk);
    EXPECT_EQ(wrapped.nap, 1);
    ASSERT_EQ(Remote::parseLocationResponse(answer("<location nap='-1'/>"), 0, wrapped), kOk);
    EXPECT_EQ(wrapped.nap, 65535);
}

TEST(LocationResponse, CodesOfOtherLengthsAreEmptied) {
    Core::LocationRecord record;
    std::string location =
        "<location><street-address><state code='MAS'>Massachusetts</state>"
        "<country code='U'>United States</country></street-address></location>";
    ASSERT_EQ(Remote::parseLocationResponse(answer(location), 1, record), kOk);
    EXPECT_EQ(record.streetAddress.state, "Massachusetts");
    EXPECT_EQ(record.streetAddress.stateCode, "");
    EXPECT_EQ(record.streetAddress.country, "United States");
    EXPECT_EQ(record.streetAddress.countryCode, "");
}

TEST(LocationResponse, StructuralFailuresGiveSix) {
    const std::string ns = Remote::kRequestNamespaceUri;
    const std::vector<std::string> failures = {
        "",
        "<LocationRS",
        answer("<error>denied</error>" + kLocation),
        answer(kLocation + "<error/>"),
        answer("<other/>"),
        answer("<wrapper>" + kLocation + "</wrapper>"),  // grandchildren are not searched
        answer("<Location nap='1'/>"),                   // names are case-sensitive
        // No namespace declared: nothing is found.
        "<LocationRS>" + kLocation + "</LocationRS>",
        // Another namespace, or the right one behind a prefix.
        "<LocationRS xmlns='http://example.invalid/zel/2005'>" + kLocation + "</LocationRS>",
        "<z:LocationRS xmlns:z='" + ns + "'><z:location nap='1'/></z:LocationRS>",
    };
    for (const std::string& text : failures) {
        Core::LocationRecord record;
        EXPECT_EQ(Remote::parseLocationResponse(text, 2, record), kCannot) << text;
    }
}

TEST(LocationResponse, EveryTruncationFailsWithoutHarm) {
    std::string full = answer(kLocation);
    for (size_t length = 0; length < full.size(); ++length) {
        Core::LocationRecord record;
        Core::ResultCode code = Remote::parseLocationResponse(full.substr(0, length), 2, record);
        EXPECT_EQ(code, kCannot) << length;
    }
}

TEST(IpLocationResponse, ReadsIpPositionAndAddress) {
    std::string body =
        "<ip-location><ip>192.0.2.7</ip><latitude>-33.9</latitude>"
        "<longitude>18.4</longitude>" +
        kFullAddress + "</ip-location>";
    Core::IpLocationRecord record;
    ASSERT_EQ(Remote::parseIPLocationResponse(answer(body, "IPLocationRS"), 1, record), kOk);
    EXPECT_EQ(record.ip, "192.0.2.7");
    EXPECT_EQ(record.latitude, -33.9);
    EXPECT_EQ(record.longitude, 18.4);
    EXPECT_EQ(record.streetAddress.addressLines.size(), 3u);
    EXPECT_EQ(record.streetAddress.countryCode, "US");

    Core::IpLocationRecord bare;
    ASSERT_EQ(Remote::parseIPLocationResponse(answer(body, "IPLocationRS"), 0, bare), kOk);
    EXPECT_TRUE(bare.streetAddress.empty());
    EXPECT_EQ(bare.ip, "192.0.2.7");
}

TEST(IpLocationResponse, FailuresGiveSix) {
    for (const std::string& text : {answer("<error/><ip-location/>"), answer(kLocation),
                                    std::string("<x/>"), std::string("garbage")}) {
        Core::IpLocationRecord record;
        EXPECT_EQ(Remote::parseIPLocationResponse(text, 2, record), kCannot) << text;
    }
}

TEST(RegistrationResponse, ErrorElementOrBadDocumentGiveSix) {
    EXPECT_EQ(Remote::parseRegistrationResponse(answer("", "RegistrationRS")), kOk);
    EXPECT_EQ(Remote::parseRegistrationResponse(answer("<ok/>", "RegistrationRS")), kOk);
    // An error outside the namespace is not an error element.
    EXPECT_EQ(Remote::parseRegistrationResponse("<RegistrationRS><error/></RegistrationRS>"), kOk);
    EXPECT_EQ(Remote::parseRegistrationResponse(answer("<error>taken</error>", "RegistrationRS")),
              kCannot);
    EXPECT_EQ(Remote::parseRegistrationResponse("<RegistrationRS>"), kCannot);
}

TEST(StreetAddressReading, MissingChildLeavesNameAndCodeAsTheyWere) {
    auto parser = SPI::newLibXml2Parser();
    std::string text = answer("<state code='NY'>New York</state>", "street-address");
    auto document = parser->parse(text.data(), text.size());
    ASSERT_NE(document, nullptr);
    auto root = document->documentElement();
    std::string name = "kept", code = "KP";
    Remote::childNameAndCode(*root, "country", name, code);
    EXPECT_EQ(name, "kept");
    EXPECT_EQ(code, "KP");
    Remote::childNameAndCode(*root, "state", name, code);
    EXPECT_EQ(name, "New York");
    EXPECT_EQ(code, "NY");
}

}  // namespace
}  // namespace ZEL::API

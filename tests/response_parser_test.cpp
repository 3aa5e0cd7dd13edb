#include "remote/response_parser.h"

#include <gtest/gtest.h>

#include "remote/request_messages.h"
#include "support/test_platform.h"

namespace ZEL::Remote {
namespace {

constexpr Core::ResultCode kOk = Core::ResultCode::kOk;
constexpr Core::ResultCode kCannot = Core::ResultCode::kCannotDetermine;

// An answer document around `body`, by default a location answer.
std::string answer(const std::string& body, const std::string& root = "LocationRS") {
    return Testing::serverAnswer(root, body);
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

TEST(LocationResponse, ReadsEveryFieldAndTheAddressOnlyAtANonZeroLevel) {
    Core::LocationRecord record;
    ASSERT_EQ(parseLocationResponse(answer(kLocation), 7, record), kOk);
    EXPECT_DOUBLE_EQ(record.longitude, -72.5898);
    EXPECT_DOUBLE_EQ(record.hpe, 25.5);
    EXPECT_EQ(record.speed, -1.0);
    Core::StreetAddress expected{"12",
                                 {"Line one", "Line two", "Line three"},
                                 "Springfield",
                                 "01101",
                                 "Hampden",
                                 "P",
                                 "New England",
                                 "MA",
                                 "Massachusetts",
                                 "United States",
                                 "US"};
    EXPECT_EQ(record.streetAddress, expected);
    Core::LocationRecord bare;
    ASSERT_EQ(parseLocationResponse(answer(kLocation), 0, bare), kOk);
    EXPECT_TRUE(bare.streetAddress.empty());
}

TEST(LocationResponse, NumbersFollowAtofAndAtoiAndMissingOnesReadAsZero) {
    struct Row {
        const char* location;
        double latitude, longitude, hpe;
        uint16_t nap;  // kept as 16 bits
    };
    for (Row row : {Row{"<location nap='12abc'><latitude> 3.25xyz</latitude><longitude>east"
                        "</longitude><hpe>1e2</hpe></location>",
                        3.25, 0, 100, 12},
                    Row{"<location><latitude>1.5</latitude></location>", 1.5, 0, 0, 0},
                    Row{"<location nap='65537'/>", 0, 0, 0, 1},
                    Row{"<location nap='-1'/>", 0, 0, 0, 65535}}) {
        Core::LocationRecord record;
        ASSERT_EQ(parseLocationResponse(answer(row.location), 2, record), kOk) << row.location;
        EXPECT_EQ(record.latitude, row.latitude) << row.location;
        EXPECT_EQ(record.longitude, row.longitude) << row.location;
        EXPECT_EQ(record.hpe, row.hpe) << row.location;
        EXPECT_EQ(record.nap, row.nap) << row.location;
    }
}

TEST(LocationResponse, CodesOfOtherLengthsAreEmptied) {
    Core::LocationRecord record;
    ASSERT_EQ(parseLocationResponse(
                  answer("<location><street-address><state code='MAS'>Massachusetts</state>"
                         "<country code='U'>United States</country></street-address></location>"),
                  1, record),
              kOk);
    EXPECT_EQ(record.streetAddress.state, "Massachusetts");
    EXPECT_EQ(record.streetAddress.stateCode, "");
    EXPECT_EQ(record.streetAddress.countryCode, "");
}

TEST(LocationResponse, StructuralFailuresAndEveryTruncationGiveSix) {
    std::vector<std::string> failures = {
        answer("<error>denied</error>" + kLocation),
        answer(kLocation + "<error/>"),
        answer("<other/>"),
        answer("<wrapper>" + kLocation + "</wrapper>"),  // grandchildren are not searched
        answer("<Location nap='1'/>"),                   // names are case-sensitive
        "<LocationRS>" + kLocation + "</LocationRS>",    // no namespace
        "<LocationRS xmlns='http://example.invalid/zel/2005'>" + kLocation + "</LocationRS>",
        "<z:LocationRS xmlns:z='" + std::string(kRequestNamespaceUri) +
            "'><z:location nap='1'/></z:LocationRS>",  // the right namespace behind a prefix
    };
    const std::string full = answer(kLocation);
    for (size_t length = 0; length < full.size(); ++length) {
        failures.push_back(full.substr(0, length));
    }
    for (const std::string& text : failures) {
        Core::LocationRecord record;
        EXPECT_EQ(parseLocationResponse(text, 2, record), kCannot) << text;
    }
}

TEST(IpLocationResponse, ReadsIpPositionAndAddress) {
    std::string body =
        "<ip-location><ip>192.0.2.7</ip><latitude>-33.9</latitude>"
        "<longitude>18.4</longitude>" +
        kFullAddress + "</ip-location>";
    Core::IpLocationRecord record;
    ASSERT_EQ(parseIPLocationResponse(answer(body, "IPLocationRS"), 1, record), kOk);
    EXPECT_EQ(record.ip, "192.0.2.7");
    EXPECT_EQ(record.latitude, -33.9);
    EXPECT_EQ(record.streetAddress.countryCode, "US");
    Core::IpLocationRecord bare;
    ASSERT_EQ(parseIPLocationResponse(answer(body, "IPLocationRS"), 0, bare), kOk);
    EXPECT_TRUE(bare.streetAddress.empty());
    for (const std::string& text : {answer("<error/><ip-location/>"), answer(kLocation),
                                    std::string("<x/>"), std::string("garbage")}) {
        EXPECT_EQ(parseIPLocationResponse(text, 2, record), kCannot) << text;
    }
}

TEST(RegistrationResponse, OnlyAnErrorElementOrABadDocumentFail) {
    EXPECT_EQ(parseRegistrationResponse(answer("", "RegistrationRS")), kOk);
    EXPECT_EQ(parseRegistrationResponse(answer("<ok/>", "RegistrationRS")), kOk);
    // An error outside the namespace is not an error element.
    EXPECT_EQ(parseRegistrationResponse("<RegistrationRS><error/></RegistrationRS>"), kOk);
    EXPECT_EQ(parseRegistrationResponse(answer("<error>taken</error>", "RegistrationRS")), kCannot);
    EXPECT_EQ(parseRegistrationResponse("<RegistrationRS>"), kCannot);
}

}  // namespace
}  // namespace ZEL::Remote

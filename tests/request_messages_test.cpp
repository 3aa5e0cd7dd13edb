#include "remote/request_messages.h"

#include <gtest/gtest.h>

#include "support/scripted_wifi_adapter.h"

namespace ZEL::API {
namespace {

const ZEL_Authentication kAlice{"alice", "acme"};

std::string withNamespace(const std::string& tag) {
    return "<" + tag + " xmlns='" + Remote::kRequestNamespaceUri + "' version='2.3'";
}

TEST(LocationRequest, MatchesTheWireFormatByteForByte) {
    Core::ScannedAP first{};
    first.mac = {0x56, 0x34, 0x12, 0xEF, 0xCD, 0xAB};
    first.rss = -71;
    std::string expected = "<?xml version='1.0'?>" + withNamespace("LocationRQ") +
                           " street-address-lookup='full'>"
                           "<authentication version='2.0'><simple><username>alice</username>"
                           "<realm>acme</realm></simple></authentication>"
                           "<access-point><mac>ABCDEF123456</mac><signal-strength>-71"
                           "</signal-strength></access-point>"
                           "<access-point><mac>010000000000</mac><signal-strength>0"
                           "</signal-strength></access-point>"
                           "</LocationRQ>";
    Core::ScannedAP second{};
    second.mac = {0, 0, 0, 0, 0, 1};
    second.rss = 0;
    EXPECT_EQ(Remote::makeLocationRequest(kAlice, 2, {first, second}), expected);
}

TEST(LocationRequest, KeepsListOrderAndSignalText) {
    Core::ApList aps = {Testing::ap("00:00:00:00:00:02", -100), Testing::ap("00:00:00:00:00:01", -5),
                  Testing::ap("00:00:00:00:00:02", -32768)};
    std::string request = Remote::makeLocationRequest(kAlice, 0, aps);
    size_t a = request.find("<mac>000000000002</mac><signal-strength>-100<");
    size_t b = request.find("<mac>000000000001</mac><signal-strength>-5<");
    size_t c = request.find("<mac>000000000002</mac><signal-strength>-32768<");
    ASSERT_NE(a, std::string::npos);
    ASSERT_NE(b, std::string::npos);
    ASSERT_NE(c, std::string::npos);
    EXPECT_LT(a, b);
    EXPECT_LT(b, c);
}

TEST(LocationRequest, EmptyListHasNoAccessPoint) {
    std::string request = Remote::makeLocationRequest(kAlice, 1, {});
    EXPECT_EQ(request.find("access-point"), std::string::npos);
    EXPECT_TRUE(request.ends_with("</authentication></LocationRQ>"));
    EXPECT_NE(request.find(" street-address-lookup='limited'>"), std::string::npos);
}

TEST(StreetAddressLookup, LevelsAndUnknownValues) {
    EXPECT_EQ(Remote::makeStreetAddressLookup(0), " street-address-lookup='none'");
    EXPECT_EQ(Remote::makeStreetAddressLookup(1), " street-address-lookup='limited'");
    EXPECT_EQ(Remote::makeStreetAddressLookup(2), " street-address-lookup='full'");
    // Any other level is passed on as an empty value, not an error or a default.
    for (int level : {3, -1, 1000}) {
        EXPECT_EQ(Remote::makeStreetAddressLookup(level), " street-address-lookup=''") << level;
    }
    EXPECT_NE(Remote::makeLocationRequest(kAlice, 3, {})
                  .find(withNamespace("LocationRQ") + " street-address-lookup=''>"),
              std::string::npos);
    EXPECT_NE(Remote::makeIPLocationRequest(kAlice, -1)
                  .find(withNamespace("IPLocationRQ") + " street-address-lookup=''>"),
              std::string::npos);
}

TEST(IpLocationRequest, WholeDocument) {
    EXPECT_EQ(Remote::makeIPLocationRequest(kAlice, 0),
              "<?xml version='1.0'?>" + withNamespace("IPLocationRQ") +
                  " street-address-lookup='none'><authentication version='2.0'><simple>"
                  "<username>alice</username><realm>acme</realm></simple></authentication>"
                  "</IPLocationRQ>");
}

TEST(RegistrationRequest, NewUserStandsBareWithoutLookup) {
    ZEL_Authentication bob{"bob", "example"};
    EXPECT_EQ(Remote::makeRegistrationRequest(kAlice, bob),
              "<?xml version='1.0'?>" + withNamespace("RegistrationRQ") +
                  "><authentication version='2.0'><simple><username>alice</username>"
                  "<realm>acme</realm></simple></authentication><simple><username>bob"
                  "</username><realm>example</realm></simple></RegistrationRQ>");
}

TEST(Authentication, CopiesStringsUnescapedAndEmpty) {
    ZEL_Authentication odd{"a<b&'c", ""};
    EXPECT_EQ(Remote::makeAuthentication(odd),
              "<authentication version='2.0'><simple><username>a<b&'c</username><realm>"
              "</realm></simple></authentication>");
}

TEST(Namespace, IsAnHttpUriEndingInTheProtocolPath) {
    std::string uri = Remote::kRequestNamespaceUri;
    EXPECT_TRUE(uri.starts_with("http://"));
    EXPECT_TRUE(uri.ends_with("/zel/2005"));
}

}  // namespace
}  // namespace ZEL::API

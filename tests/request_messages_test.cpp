#include "remote/request_messages.h"

#include <gtest/gtest.h>

#include "support/test_platform.h"

namespace ZEL::Remote {
namespace {

const Core::Credentials kAlice{"alice", "acme"};
const std::string kAliceText =
    "<authentication version='2.0'><simple><username>alice</username><realm>acme</realm>"
    "</simple></authentication>";

std::string opening(const std::string& tag) {
    return "<?xml version='1.0'?><" + tag + " xmlns='" + kRequestNamespaceUri + "' version='2.3'";
}

TEST(LocationRequest, MatchesTheWireFormatByteForByte) {
    Core::ApList aps = {Testing::ap("ABCDEF123456", -71), Testing::ap("010000000000", 0),
                        Testing::ap("ABCDEF123456", -32768)};
    EXPECT_EQ(makeLocationRequest(kAlice, 2, aps),
              opening("LocationRQ") + " street-address-lookup='full'>" + kAliceText +
                  "<access-point><mac>ABCDEF123456</mac><signal-strength>-71</signal-strength>"
                  "</access-point><access-point><mac>010000000000</mac><signal-strength>0"
                  "</signal-strength></access-point><access-point><mac>ABCDEF123456</mac>"
                  "<signal-strength>-32768</signal-strength></access-point></LocationRQ>");
    EXPECT_EQ(
        makeLocationRequest(kAlice, 1, {}),
        opening("LocationRQ") + " street-address-lookup='limited'>" + kAliceText + "</LocationRQ>");
}

TEST(StreetAddressLookup, UnknownLevelsPassAsAnEmptyValue) {
    struct Row {
        int level;
        const char* value;
    };
    for (Row row : {Row{0, "none"}, Row{1, "limited"}, Row{2, "full"}, Row{3, ""}, Row{-1, ""},
                    Row{1000, ""}}) {
        EXPECT_EQ(makeIPLocationRequest(kAlice, row.level),
                  opening("IPLocationRQ") + " street-address-lookup='" + row.value + "'>" +
                      kAliceText + "</IPLocationRQ>")
            << row.level;
    }
}

TEST(RegistrationRequest, NewUserStandsBareWithoutLookup) {
    EXPECT_EQ(makeRegistrationRequest(kAlice, {"bob", "example"}),
              opening("RegistrationRQ") + ">" + kAliceText +
                  "<simple><username>bob</username><realm>example</realm></simple>"
                  "</RegistrationRQ>");
}

TEST(Authentication, CopiesStringsUnescaped) {
    // Kept on purpose: request fields are not XML-escaped; a '<' goes out verbatim.
    EXPECT_EQ(makeAuthentication({"a<b&'c", ""}),
              "<authentication version='2.0'><simple><username>a<b&'c</username><realm>"
              "</realm></simple></authentication>");
}

}  // namespace
}  // namespace ZEL::Remote

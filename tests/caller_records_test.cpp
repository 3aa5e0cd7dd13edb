#include "api/caller_records.h"

#include <gtest/gtest.h>

#include "support/test_platform.h"

namespace ZEL::API {
namespace {

Core::StreetAddress fullAddress() {
    Core::StreetAddress address;
    address.streetNumber = "221b";
    address.addressLines = {"Baker Street", "Marylebone", "Flat 2"};
    address.city = "London";
    address.stateCode = "MASS";  // codes longer than three characters are cut
    address.countryCode = "GB";
    return address;
}

TEST(CallerStreetAddress, EveryFieldSurvives) {
    ZEL_StreetAddress* record = makeCallerStreetAddress(fullAddress());
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->street_number, "221b");
    EXPECT_EQ(record->address_line[3], nullptr);
    EXPECT_STREQ(record->county, "");
    EXPECT_STREQ(record->state_code, "MAS");
    EXPECT_STREQ(record->country_code, "GB");
    freeCallerStreetAddress(record);

    EXPECT_EQ(makeCallerStreetAddress(Core::StreetAddress{}), nullptr);
    Core::StreetAddress onlyLine;
    onlyLine.addressLines = {""};  // one (empty) line is still a line
    record = makeCallerStreetAddress(onlyLine);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->address_line[1], nullptr);
    freeCallerStreetAddress(record);
}

TEST(CallerLocation, CopiesNumbersApTablesAndIpLocations) {
    Core::LocationRecord source;
    source.bearing = 270.5;
    source.streetAddress = fullAddress();
    source.knownAps = {Testing::ap("AABBCCDDEEFF", -71), Testing::ap("112233445566", -80)};
    ZEL_Location* location = makeCallerLocation(source);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->bearing, 270.5);
    EXPECT_STREQ(location->street_address->city, "London");
    ASSERT_EQ(location->known_aps.count, 2);
    EXPECT_EQ(location->known_aps.aps[0].mac[5], 0xAA);  // first printed octet last
    EXPECT_EQ(location->known_aps.aps[1].rss, -80);
    EXPECT_EQ(location->unknown_aps.aps, nullptr);
    freeCallerLocation(location);

    location = makeCallerLocation(Core::LocationRecord{});
    EXPECT_EQ(location->street_address, nullptr);
    freeCallerLocation(location);

    ZEL_IPLocation* ip =
        makeCallerIpLocation(Core::IpLocationRecord{"192.0.2.7", 48.1, 11.6, fullAddress()});
    EXPECT_STREQ(ip->ip, "192.0.2.7");
    EXPECT_EQ(ip->longitude, 11.6);
    EXPECT_STREQ(ip->street_address->address_line[1], "Marylebone");
    freeCallerIpLocation(ip);
}

}  // namespace
}  // namespace ZEL::API

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
    address.postalCode = "NW1 6XE";
    address.stateCode = "MASS";  // codes longer than three characters are cut
    address.state = "England";
    address.country = "United Kingdom";
    address.countryCode = "GB";
    return address;
}

TEST(CallerStreetAddress, EveryFieldSurvivesInOneBlock) {
    ZEL_StreetAddress* record = makeCallerStreetAddress(fullAddress());
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->street_number, "221b");
    ASSERT_NE(record->address_line, nullptr);
    EXPECT_STREQ(record->address_line[2], "Flat 2");
    EXPECT_EQ(record->address_line[3], nullptr);
    EXPECT_STREQ(record->postal_code, "NW1 6XE");
    EXPECT_STREQ(record->county, "");
    EXPECT_STREQ(record->state_code, "MAS");
    EXPECT_STREQ(record->country, "United Kingdom");
    EXPECT_STREQ(record->country_code, "GB");
    // One block: the pointer-aligned line array sits right before the strings.
    EXPECT_EQ(reinterpret_cast<uintptr_t>(record->address_line) % alignof(char*), 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(record->address_line[0]),
              reinterpret_cast<uintptr_t>(record->address_line) + 4 * sizeof(char*));
    EXPECT_EQ(record->city, record->address_line[2] + 7);
    freeCallerStreetAddress(record);

    EXPECT_EQ(makeCallerStreetAddress(Core::StreetAddress{}), nullptr);
    Core::StreetAddress onlyLine;
    onlyLine.addressLines = {""};  // one (empty) line is still a line
    record = makeCallerStreetAddress(onlyLine);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->address_line[0], "");
    EXPECT_EQ(record->address_line[1], nullptr);
    freeCallerStreetAddress(record);
}

TEST(CallerLocation, CopiesNumbersAndApTables) {
    Core::LocationRecord source;
    source.latitude = 52.5;
    source.longitude = 13.25;
    source.hpe = 31.7;
    source.nap = 4;
    source.speed = -1.0;
    source.bearing = 270.5;
    source.streetAddress = fullAddress();
    source.knownAps = {Testing::ap("AABBCCDDEEFF", -71), Testing::ap("112233445566", -80)};
    ZEL_Location* location = makeCallerLocation(source);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->longitude, 13.25);
    EXPECT_EQ(location->hpe, 31.7);
    EXPECT_EQ(location->nap, 4);
    EXPECT_EQ(location->speed, -1.0);
    EXPECT_EQ(location->bearing, 270.5);
    ASSERT_NE(location->street_address, nullptr);
    EXPECT_STREQ(location->street_address->city, "London");
    ASSERT_EQ(location->known_aps.count, 2);
    EXPECT_EQ(location->known_aps.aps[0].mac[5], 0xAA);  // first printed octet last
    EXPECT_EQ(location->known_aps.aps[0].mac[0], 0xFF);
    EXPECT_EQ(location->known_aps.aps[1].rss, -80);
    EXPECT_EQ(location->unknown_aps.count, 0);
    EXPECT_EQ(location->unknown_aps.aps, nullptr);
    freeCallerLocation(location);

    location = makeCallerLocation(Core::LocationRecord{});
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->street_address, nullptr);
    EXPECT_EQ(location->known_aps.aps, nullptr);
    freeCallerLocation(location);
}

TEST(CallerIpLocation, CopiesIpAndAddress) {
    ZEL_IPLocation* location =
        makeCallerIpLocation(Core::IpLocationRecord{"192.0.2.7", 48.1, 11.6, fullAddress()});
    ASSERT_NE(location, nullptr);
    EXPECT_STREQ(location->ip, "192.0.2.7");
    EXPECT_EQ(location->latitude, 48.1);
    EXPECT_EQ(location->longitude, 11.6);
    ASSERT_NE(location->street_address, nullptr);
    EXPECT_STREQ(location->street_address->address_line[1], "Marylebone");
    freeCallerIpLocation(location);

    location = makeCallerIpLocation(Core::IpLocationRecord{});
    ASSERT_NE(location, nullptr);
    EXPECT_STREQ(location->ip, "");
    EXPECT_EQ(location->street_address, nullptr);
    freeCallerIpLocation(location);
}

}  // namespace
}  // namespace ZEL::API

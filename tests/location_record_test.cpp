#include "core/location_record.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/scripted_wifi_adapter.h"

namespace ZEL::API {
namespace {

Core::StreetAddress fullAddress() {
    Core::StreetAddress address;
    address.streetNumber = "221b";
    address.addressLines = {"Baker Street", "Marylebone", "Flat 2"};
    address.city = "London";
    address.postalCode = "NW1 6XE";
    address.county = "Greater London";
    address.province = "England";
    address.region = "South East";
    address.stateCode = "EN";
    address.state = "England";
    address.country = "United Kingdom";
    address.countryCode = "GB";
    return address;
}

TEST(CallerStreetAddress, EveryFieldSurvivesInOneBlock) {
    Core::StreetAddress address = fullAddress();
    ZEL_StreetAddress* record = makeCallerStreetAddress(address);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->street_number, "221b");
    ASSERT_NE(record->address_line, nullptr);
    EXPECT_STREQ(record->address_line[0], "Baker Street");
    EXPECT_STREQ(record->address_line[1], "Marylebone");
    EXPECT_STREQ(record->address_line[2], "Flat 2");
    EXPECT_EQ(record->address_line[3], nullptr);
    EXPECT_STREQ(record->city, "London");
    EXPECT_STREQ(record->postal_code, "NW1 6XE");
    EXPECT_STREQ(record->county, "Greater London");
    EXPECT_STREQ(record->province, "England");
    EXPECT_STREQ(record->region, "South East");
    EXPECT_STREQ(record->state_code, "EN");
    EXPECT_STREQ(record->state, "England");
    EXPECT_STREQ(record->country, "United Kingdom");
    EXPECT_STREQ(record->country_code, "GB");

    // One block: every string and the line array lie between street_number and the
    // end of the block; the array is pointer-aligned.
    auto start = reinterpret_cast<uintptr_t>(record->street_number);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(record->address_line) % alignof(char*), 0u);
    EXPECT_GT(reinterpret_cast<uintptr_t>(record->address_line), start);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(record->address_line[0]),
              reinterpret_cast<uintptr_t>(record->address_line) + 4 * sizeof(char*));
    EXPECT_EQ(record->city, record->address_line[2] + 7);
    EXPECT_EQ(record->country, record->state + 8);
    freeCallerStreetAddress(record);
}

TEST(CallerStreetAddress, EmptyAddressGivesNull) {
    EXPECT_EQ(makeCallerStreetAddress(Core::StreetAddress{}), nullptr);
    Core::StreetAddress onlyLine;
    onlyLine.addressLines = {""};  // one (empty) line is still a line
    ZEL_StreetAddress* record = makeCallerStreetAddress(onlyLine);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->address_line[0], "");
    EXPECT_EQ(record->address_line[1], nullptr);
    EXPECT_STREQ(record->city, "");
    freeCallerStreetAddress(record);
}

TEST(CallerStreetAddress, CodesLongerThanThreeAreCut) {
    Core::StreetAddress address;
    address.stateCode = "MASS";
    address.countryCode = "USA";
    ZEL_StreetAddress* record = makeCallerStreetAddress(address);
    ASSERT_NE(record, nullptr);
    EXPECT_STREQ(record->state_code, "MAS");
    EXPECT_STREQ(record->country_code, "USA");
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
    EXPECT_EQ(location->latitude, 52.5);
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
}

TEST(CallerLocation, NoApsAndNoAddressGiveZeroCountsAndNulls) {
    ZEL_Location* location = makeCallerLocation(Core::LocationRecord{});
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->street_address, nullptr);
    EXPECT_EQ(location->known_aps.count, 0);
    EXPECT_EQ(location->known_aps.aps, nullptr);
    EXPECT_EQ(location->unknown_aps.aps, nullptr);
    ZEL_free_location(location);
}

TEST(CallerIpLocation, CopiesIpAndAddress) {
    Core::IpLocationRecord source{"192.0.2.7", 48.1, 11.6, fullAddress()};
    ZEL_IPLocation* location = makeCallerIpLocation(source);
    ASSERT_NE(location, nullptr);
    EXPECT_STREQ(location->ip, "192.0.2.7");
    EXPECT_EQ(location->latitude, 48.1);
    EXPECT_EQ(location->longitude, 11.6);
    ASSERT_NE(location->street_address, nullptr);
    EXPECT_STREQ(location->street_address->address_line[1], "Marylebone");
    ZEL_free_ip_location(location);

    ZEL_IPLocation* bare = makeCallerIpLocation(Core::IpLocationRecord{"", 0, 0, {}});
    ASSERT_NE(bare, nullptr);
    EXPECT_STREQ(bare->ip, "");
    EXPECT_EQ(bare->street_address, nullptr);
    ZEL_free_ip_location(bare);
}

TEST(CallerRecords, FreeFunctionsAcceptNull) {
    ZEL_free_location(nullptr);
    ZEL_free_ip_location(nullptr);
    freeCallerStreetAddress(nullptr);
}

}  // namespace
}  // namespace ZEL::API

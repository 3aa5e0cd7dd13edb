// The tile builder's CSV input: both forms, defaults, and every kind of bad line.
#include <gtest/gtest.h>

#include <cmath>

#include "tiles/ap_csv.h"

namespace ZEL::API {
namespace {

std::vector<size_t> issueLines(const Tiles::ApCsvResult& result) {
    std::vector<size_t> lines;
    for (const Tiles::CsvIssue& issue : result.issues) {
        lines.push_back(issue.line);
    }
    return lines;
}

TEST(ApCsvPlain, ReadsColumnsByNameWithDefaultsAndSeparatorsOfAnyKind) {
    Tiles::ApCsvResult result = Tiles::parseAccessPointCsv(
        "longitude, MAC ,latitude\r\n"
        "11.5,AA:BB:CC:DD:EE:FF,48.25\r\n"
        "\n"
        "-0.125,001122334455,-33.5\n");
    ASSERT_TRUE(result.error.empty());
    EXPECT_FALSE(result.wigle);
    ASSERT_EQ(result.accessPoints.size(), 2u);
    const Tiles::AccessPointPosition& first = result.accessPoints[0];
    EXPECT_EQ(Core::macText(first.mac), "AABBCCDDEEFF");
    EXPECT_EQ(first.mac[5], 0xAA);  // stored last octet first
    EXPECT_EQ(first.latitude, 48.25);
    EXPECT_EQ(first.longitude, 11.5);
    EXPECT_EQ(first.quality, 50u);
    EXPECT_EQ(first.signalExponent, 0.25);
    EXPECT_EQ(result.accessPoints[1].latitude, -33.5);
    EXPECT_TRUE(result.issues.empty());

    result = Tiles::parseAccessPointCsv(
        "mac,latitude,longitude,quality,signal_exponent\n"
        "aa-bb-cc-dd-ee-01,1,2,33,0.4\n");
    ASSERT_EQ(result.accessPoints.size(), 1u);
    EXPECT_EQ(result.accessPoints[0].quality, 33u);
    EXPECT_EQ(result.accessPoints[0].signalExponent, 0.4);
}

TEST(ApCsvPlain, SkipsMalformedLinesReportingTheirNumbers) {
    Tiles::ApCsvResult result = Tiles::parseAccessPointCsv(
        "mac,latitude,longitude,quality,signal_exponent\n"
        "AABBCCDDEEF,1,2,30,0.3\n"        // 2: eleven digits
        "AABBCCDDEEFF,91,2,30,0.3\n"      // 3: latitude out of range
        "AABBCCDDEEFF,1,-180.5,30,0.3\n"  // 4: longitude out of range
        "AABBCCDDEEFF,1x,2,30,0.3\n"      // 5: not a number
        "AABBCCDDEEFF,1,2,-3,0.3\n"       // 6: negative quality
        "AABBCCDDEEFF,1,2,30,nan\n"       // 7: not finite
        "AABBCCDDEEFF,1,2,30\n"           // 8: a field short
        "\"AABBCCDDEEFF,1,2,30,0.3\n"     // 9: unterminated quote
        "AABBCCDDEEFF,1,2,30,0.3\n");     // 10: good
    EXPECT_EQ(issueLines(result), (std::vector<size_t>{2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(result.issues[0].message, "invalid MAC 'AABBCCDDEEF'");
    EXPECT_EQ(result.issues[6].message, "expected 5 fields, found 4");
    ASSERT_EQ(result.accessPoints.size(), 1u);
}

TEST(ApCsvPlain, MissingHeaderColumnsAreAnError) {
    EXPECT_FALSE(Tiles::parseAccessPointCsv("").error.empty());
    EXPECT_FALSE(Tiles::parseAccessPointCsv("mac,lat,lon\nAABBCCDDEEFF,1,2\n").error.empty());
    EXPECT_FALSE(Tiles::parseAccessPointCsv("\"mac,latitude,longitude\n").error.empty());
}

TEST(ApCsvWigle, AveragesObservationsByPowerAndIgnoresOtherRadios) {
    Tiles::ApCsvResult result = Tiles::parseAccessPointCsv(
        "WigleWifi-1.6,appRelease=1,model=x,release=1,device=x,display=x,board=x,brand=x,"
        "star=Sol,body=3,subBody=0\n"
        "MAC,SSID,AuthMode,FirstSeen,Channel,Frequency,RSSI,CurrentLatitude,CurrentLongitude,"
        "AltitudeMeters,AccuracyMeters,RCOIs,MfgrId,Type\n"
        "aa:bb:cc:dd:ee:ff,\"cafe, upstairs\",[WPA2],2024-01-01 10:00:00,6,2437,-50,48.0,11.0,"
        "500,5,,,WIFI\n"
        "aa:bb:cc:dd:ee:ff,cafe,[WPA2],2024-01-01 10:00:05,6,2437,-60,48.1,11.1,500,5,,,WIFI\n"
        "11:22:33:44:55:66,,Misc,2024-01-01 10:00:06,0,0,-70,48.0,11.0,500,5,,,BLE\n"
        "00:00:00:00:00:01,net,[ESS],2024-01-01 10:00:07,1,2412,0,47.0,10.0,500,5,,,WIFI\n"
        "00:00:00:00:00:02,net,[ESS],2024-01-01 10:00:07,1,2412,-40,0,0,500,5,,,WIFI\n"
        "00:00:00:00:00:03,net,[ESS],2024-01-01 10:00:07,1,2412,strong,1,1,500,5,,,WIFI\n");
    ASSERT_TRUE(result.error.empty());
    EXPECT_TRUE(result.wigle);
    ASSERT_EQ(result.accessPoints.size(), 2u);
    const Tiles::AccessPointPosition& cafe = result.accessPoints[0];
    EXPECT_EQ(Core::macText(cafe.mac), "AABBCCDDEEFF");
    // Weights 10^-5 and 10^-6 mW: the stronger observation counts ten times more.
    EXPECT_NEAR(cafe.latitude, (48.0 * 10 + 48.1) / 11, 1e-12);
    EXPECT_NEAR(cafe.longitude, (11.0 * 10 + 11.1) / 11, 1e-12);
    EXPECT_EQ(cafe.quality, 50u);
    EXPECT_EQ(result.accessPoints[1].latitude, 47.0);  // unknown RSSI still places it
    EXPECT_EQ(issueLines(result), (std::vector<size_t>{7, 8}));
    EXPECT_EQ(result.issues[0].message, "no position fix");
}

}  // namespace
}  // namespace ZEL::API

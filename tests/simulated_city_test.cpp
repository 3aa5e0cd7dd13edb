#include "sim/simulated_city.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <sstream>

#include "sim/simulated_walk.h"

namespace ZEL::Sim {
namespace {

TEST(SimulatedCity, IsReproducibleDistinctAndInsideTheSquare) {
    const auto city = generateCity({7, 2000, 1.0});
    ASSERT_EQ(city.size(), 2000u);
    const auto again = generateCity({7, 2000, 1.0});
    const auto other = generateCity({8, 2000, 1.0});
    EXPECT_EQ(again[1999].mac, city[1999].mac);
    EXPECT_EQ(again[1999].latitude, city[1999].latitude);
    EXPECT_NE(other[0].mac, city[0].mac);
    std::set<Core::MacAddress> macs;
    for (const CityAp& ap : city) {
        macs.insert(ap.mac);
        // 500 m to the edge, plus the survey error of a poor AP and a little jitter.
        EXPECT_LT(std::abs(LocalFrame::north(ap.latitude)), 560.0);
        EXPECT_LT(std::abs(LocalFrame::east(ap.longitude)), 560.0);
        EXPECT_GE(ap.quality, 18u);
        EXPECT_GE(ap.signalExponent, 0.25);
        EXPECT_LE(ap.signalExponent, 0.4);
    }
    EXPECT_EQ(macs.size(), city.size());
}

TEST(SimulatedCity, SurveyErrorGrowsForPoorQuality) {
    for (const CityAp& ap : generateCity({3, 500, 1.0})) {
        const ApRadio radio = radioOf(ap);
        const double error = std::hypot(LocalFrame::north(ap.latitude) - radio.northMetres,
                                        LocalFrame::east(ap.longitude) - radio.eastMetres);
        if (ap.quality > 30) {
            EXPECT_LE(error, 6.0 + 1e-6);
        } else {
            EXPECT_GE(error, 15.0 - 1e-6);
            EXPECT_LE(error, 45.0 + 1e-6);
        }
        EXPECT_NEAR(radio.pathLossExponent, 1.0 / ap.signalExponent, 1e-12);
    }
}

TEST(SimulatedCityCsv, RoundTripsAndReportsBadRowsByLine) {
    const auto city = generateCity({5, 20, 1.0});
    std::stringstream csv;
    writeCityCsv(csv, city);
    std::vector<std::string> errors;
    const auto back = readCityCsv(csv, errors);
    EXPECT_TRUE(errors.empty());
    ASSERT_EQ(back.size(), city.size());
    EXPECT_EQ(back[3].mac, city[3].mac);
    EXPECT_NEAR(back[3].latitude, city[3].latitude, 1e-8);
    EXPECT_EQ(back[3].quality, city[3].quality);

    std::istringstream input(
        "mac,latitude,longitude,quality,signal_exponent\n"
        "AABBCCDDEEFF,46.1,9.1\n"         // optional columns missing: defaults
        "AABBCCDDEEF,46.1,9.1\n"          // line 3: short MAC
        "AABBCCDDEEFF,91,9.1\n"           // line 4: latitude out of range
        "AABBCCDDEEFF,46.1,nan,40,0.3\n"  // line 5: not a number
        "AABBCCDDEEFF,46.1,9.1,-4,0.3\n"  // line 6: negative quality
        "\n"
        "001122334455,46.2,9.2,40,0.3\r\n");
    errors.clear();
    const auto rows = readCityCsv(input, errors);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].quality, 50u);
    EXPECT_EQ(rows[0].signalExponent, 0.25);
    EXPECT_EQ(rows[1].quality, 40u);
    EXPECT_EQ(rows[1].signalExponent, 0.3);
    ASSERT_EQ(errors.size(), 4u);
    EXPECT_EQ(errors[0], "line 3: mac is not 12 hex digits");
    EXPECT_EQ(errors[1].rfind("line 4: ", 0), 0u);
    EXPECT_EQ(errors[2].rfind("line 5: ", 0), 0u);
    EXPECT_EQ(errors[3], "line 6: quality is not an unsigned integer");
}

TEST(SimulatedWalk, MovesAlongTheStreetsAtTheGivenSpeedAndHearsUnlistedAps) {
    const auto city = generateCity({11, 3000, 1.2});
    WalkOptions options;
    options.seed = 4;
    options.minutes = 3.0;
    options.speedKmh = 36.0;  // 10 m/s
    options.periodMs = 1000;
    const SimulatedWalk walk = generateWalk(city, options);
    ASSERT_TRUE(walk.error.empty()) << walk.error;
    ASSERT_EQ(walk.scans.size(), 180u);
    ASSERT_EQ(walk.truth.size(), 180u);
    std::set<Core::MacAddress> listed;
    for (const CityAp& ap : city) {
        listed.insert(ap.mac);
    }
    size_t heard = 0;
    size_t unlisted = 0;
    for (size_t i = 0; i < walk.scans.size(); ++i) {
        EXPECT_EQ(walk.scans[i].timeMs, options.startMs + i * 1000);
        EXPECT_EQ(walk.truth[i].timeMs, walk.scans[i].timeMs);
        for (const Core::ScannedAP& ap : walk.scans[i].aps) {
            ++heard;
            unlisted += listed.count(ap.mac) == 0 ? 1 : 0;
            EXPECT_GE(ap.rss, -90);
        }
        if (i > 0) {
            const double north = LocalFrame::north(walk.truth[i].latitude) -
                                 LocalFrame::north(walk.truth[i - 1].latitude);
            const double east = LocalFrame::east(walk.truth[i].longitude) -
                                LocalFrame::east(walk.truth[i - 1].longitude);
            // At most 11.5 m of street plus the switch of sides at a turn.
            EXPECT_LE(std::hypot(north, east), 11.5 + 12.0) << i;
        }
    }
    EXPECT_GT(heard / walk.scans.size(), 10u);
    EXPECT_GT(unlisted * 100 / heard, 10u);
    EXPECT_LT(unlisted * 100 / heard, 30u);
}

TEST(SimulatedWalk, RefusesACityWithoutStreets) {
    EXPECT_FALSE(generateWalk({}, {}).error.empty());
    CityAp single;
    single.latitude = kCentreLatitude;
    single.longitude = kCentreLongitude;
    EXPECT_FALSE(generateWalk({single}, {}).error.empty());
}

TEST(SimulatedWalkTruthCsv, RoundTripsAndReportsBadRowsByLine) {
    std::stringstream csv;
    writeTruthCsv(csv, {{1750000000000ull, 46.1, 9.1, 5.0}, {1750000001000ull, 46.2, 9.2, 0.0}});
    csv << "1750000002000,46.3,9.3\n"
        << "x,46.3,9.3,1\n"
        << "1750000003000,46.3,9.3,1\n";
    std::vector<std::string> errors;
    const auto truth = readTruthCsv(csv, errors);
    ASSERT_EQ(truth.size(), 3u);
    EXPECT_EQ(truth[1].timeMs, 1750000001000ull);
    EXPECT_EQ(truth[1].latitude, 46.2);
    EXPECT_EQ(truth[0].speedKmh, 5.0);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[0], "line 4: expected t_ms,latitude,longitude,speed_kmh");
    EXPECT_EQ(errors[1].rfind("line 5: ", 0), 0u);
}

}  // namespace
}  // namespace ZEL::Sim

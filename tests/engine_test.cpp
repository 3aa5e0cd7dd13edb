#include <gtest/gtest.h>

#include <cmath>

#include "support/engine_fixture.h"
#include "support/log_capture.h"

namespace ZEL::API {
namespace {

using Testing::EngineTest;
using Testing::LogCapture;

using OneShotFlow = EngineTest;

// The one-shot flow scans at 50, 500, 1000, ... 5500 ms: 12 cycles when nothing stops it.
constexpr size_t kFullLoopCycles = 12;

size_t countOf(const std::vector<std::string>& calls, const std::string& what) {
    return static_cast<size_t>(std::count(calls.begin(), calls.end(), what));
}

TEST_F(OneShotFlow, LocalFixFromThreeApsStopsAtOnce) {
    repeatScan(knownScan(3), kFullLoopCycles);
    ZEL_Location* location = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_NO_STREET_ADDRESS_LOOKUP, &location), ZEL_OK);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->nap, 3);
    EXPECT_NEAR(location->latitude, 48.1372, 0.0003);
    EXPECT_EQ(location->known_aps.count, 3);
    EXPECT_EQ(location->unknown_aps.count, 0);
    EXPECT_EQ(countOf(script_->calls, "get"), 1u);
    EXPECT_TRUE(server_->requests().empty());
    EXPECT_EQ(clock_.sleptMs(), 50u);
    freeCallerLocation(location);
}

TEST_F(OneShotFlow, FixFromTwoApsKeepsScanningToTheEnd) {
    server_->respond("/zel2/location", {200, {}, locationAnswer(2)});
    repeatScan(knownScan(2), kFullLoopCycles);
    LogCapture log("ZEL_location");
    ZEL_Location* location = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_NO_STREET_ADDRESS_LOOKUP, &location), ZEL_OK);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->nap, 2);
    EXPECT_EQ(countOf(script_->calls, "get"), kFullLoopCycles);
    // Local fixes at 50, 1000, ... 5000 ms; at 5500 ms the two APs were last merged
    // more than 5 s ago, count as new again, and with the fix's two make enough to
    // ask the server.
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "keep scanning"), 7u);
    EXPECT_EQ(server_->requests().size(), 1u);
    freeCallerLocation(location);
}

TEST_F(OneShotFlow, StreetAddressSkipsTheDeviceAndAsksTheServer) {
    server_->respond("/zel2/location", {200, {}, locationAnswer(5, "Berlin")});
    repeatScan(knownScan(3), kFullLoopCycles);
    ZEL_Location* location = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_FULL_STREET_ADDRESS_LOOKUP, &location), ZEL_OK);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(location->nap, 5);
    EXPECT_EQ(location->latitude, 52.52);
    EXPECT_EQ(location->speed, -1.0);
    ASSERT_NE(location->street_address, nullptr);
    EXPECT_STREQ(location->street_address->city, "Berlin");
    ASSERT_EQ(server_->requests().size(), 1u);
    EXPECT_NE(server_->requests()[0].body.find("street-address-lookup='full'"), std::string::npos);
    EXPECT_NE(server_->requests()[0].body.find("<mac>0A0000000003</mac>"), std::string::npos);
    freeCallerLocation(location);
}

TEST_F(OneShotFlow, ServerThatCannotPlaceTheApsDoesNotStopTheLoop) {
    server_->respond("/zel2/location", {200, {}, errorAnswer()});
    repeatScan(knownScan(3), kFullLoopCycles);
    LogCapture log("ZEL_location");
    ZEL_Location* location = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_LIMITED_STREET_ADDRESS_LOOKUP, &location),
              ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED);
    ASSERT_NE(location, nullptr);  // the loop ended normally: a record comes with the code
    EXPECT_EQ(location->nap, 0);
    EXPECT_EQ(server_->requests().size(), kFullLoopCycles);
    EXPECT_EQ(log.count(SPI::LogPriority::kInfo, "server can't determine location"),
              kFullLoopCycles);
    freeCallerLocation(location);
}

TEST_F(OneShotFlow, ServerErrorStopsTheLoop) {
    server_->respond("/zel2/location", {500, {}, "broken"});
    repeatScan(knownScan(3), kFullLoopCycles);
    LogCapture log("ZEL_location");
    ZEL_Location* location = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_LIMITED_STREET_ADDRESS_LOOKUP, &location),
              ZEL_ERROR_SERVER_UNAVAILABLE);
    EXPECT_EQ(countOf(script_->calls, "get"), 1u);
    EXPECT_TRUE(log.contains("failed to get location from server: 5"));
    freeCallerLocation(location);
}

TEST_F(OneShotFlow, NoAccessPointHeardGivesThreeAfterTheLoop) {
    ZEL_Location* location = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_NO_STREET_ADDRESS_LOOKUP, &location), ZEL_ERROR_NO_WIFI_IN_RANGE);
    ASSERT_NE(location, nullptr);
    EXPECT_EQ(countOf(script_->calls, "get"), kFullLoopCycles);
    EXPECT_EQ(clock_.sleptMs(), 5500u);     // the cycle at 5500 ms ends the loop without sleeping
    EXPECT_EQ(locationCache().size(), 0u);  // nothing heard, nothing cached
    freeCallerLocation(location);
}

TEST_F(OneShotFlow, AdapterFailureGivesTwoAndNoRecord) {
    script_->failGet = {true};
    auto* untouched = reinterpret_cast<ZEL_Location*>(0x1);
    EXPECT_EQ(locate(auth_, ZEL_NO_STREET_ADDRESS_LOOKUP, &untouched), ZEL_ERROR_WIFI);
    EXPECT_EQ(untouched, reinterpret_cast<ZEL_Location*>(0x1));
}

TEST_F(OneShotFlow, CacheAnswersARepeatedSetAfterTwoSeconds) {
    // Two APs the server places (from its own three): asked at 3000 ms, which stops the loop.
    server_->respond("/zel2/location", {200, {}, locationAnswer(3)});
    repeatScan(knownScan(2), 2 * kFullLoopCycles);
    ZEL_Location* first = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_LIMITED_STREET_ADDRESS_LOOKUP, &first), ZEL_OK);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->nap, 3);
    EXPECT_EQ(server_->requests().size(), 1u);
    EXPECT_EQ(locationCache().size(), 1u);

    // The same two APs again: the cache answers at 2000 ms and the server is not asked.
    LogCapture log("ZEL_location");
    ZEL_Location* second = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_LIMITED_STREET_ADDRESS_LOOKUP, &second), ZEL_OK);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->latitude, 52.52);
    EXPECT_EQ(server_->requests().size(), 1u);
    EXPECT_TRUE(log.contains("found location in cache with nap = 3"));
    EXPECT_EQ(locationCache().size(), 1u);  // replaced, not added
    freeCallerLocation(first);
    freeCallerLocation(second);
}

TEST_F(OneShotFlow, CachedFailureIsPassedOverForTheServer) {
    locationCache().store(knownScan(2), Core::LocationRecord{});  // a failed attempt for the same set
    server_->respond("/zel2/location", {200, {}, locationAnswer(3)});
    repeatScan(knownScan(2), kFullLoopCycles);
    LogCapture log("ZEL_location");
    ZEL_Location* location = nullptr;
    EXPECT_EQ(locate(auth_, ZEL_LIMITED_STREET_ADDRESS_LOOKUP, &location), ZEL_OK);
    EXPECT_TRUE(log.contains("no-location found in cache"));
    EXPECT_EQ(server_->requests().size(), 1u);
    freeCallerLocation(location);
}

struct Delivered {
    std::vector<int> codes;
    std::vector<double> latitudes;
    size_t stopAfter = 3;
};

int collect(void* argument, int code, const ZEL_Location* location) {
    auto* delivered = static_cast<Delivered*>(argument);
    delivered->codes.push_back(code);
    if (location != nullptr) {
        delivered->latitudes.push_back(location->latitude);
    }
    return delivered->codes.size() < delivered->stopAfter ? 1 : 0;
}

using PeriodicFlow = EngineTest;

TEST_F(PeriodicFlow, DeliversFixesUntilTheCallbackStops) {
    repeatScan(knownScan(4), 10);
    Delivered delivered;
    EXPECT_EQ(locatePeriodically(auth_, 1000, 0, collect, &delivered), ZEL_OK);
    EXPECT_EQ(delivered.codes, (std::vector<int>{0, 0, 0}));
    ASSERT_EQ(delivered.latitudes.size(), 3u);
    EXPECT_TRUE(std::isfinite(delivered.latitudes[0]));
    EXPECT_EQ(locationSmoother().historySize(), 0u);
    EXPECT_EQ(locationCache().size(), 0u);  // periodic location never caches
}

TEST_F(PeriodicFlow, FailuresInTheFirstPeriodAreSilent) {
    // Unknown APs only: no position. The first cycle (50 ms into a 1000 ms period)
    // stays silent; later failures reach the caller.
    repeatScan({Testing::ap("0B0000000001", -60)}, 10);
    Delivered delivered;
    delivered.stopAfter = 2;
    EXPECT_EQ(locatePeriodically(auth_, 1000, 0, collect, &delivered), ZEL_OK);
    EXPECT_EQ(delivered.codes, (std::vector<int>{ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED,
                                                 ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED}));
    EXPECT_EQ(countOf(script_->calls, "get"), 3u);
}

TEST_F(PeriodicFlow, AdapterFailureReachesTheCallback) {
    script_->failGet = {true};
    Delivered delivered;
    delivered.stopAfter = 1;
    EXPECT_EQ(locatePeriodically(auth_, 500, 0, collect, &delivered), ZEL_ERROR_WIFI);
    EXPECT_EQ(delivered.codes, (std::vector<int>{ZEL_ERROR_WIFI}));
}

TEST_F(PeriodicFlow, PeriodZeroRunsEveryMillisecondForTheGivenCount) {
    repeatScan(knownScan(3), 100);
    Delivered delivered;
    delivered.stopAfter = 1000;
    EXPECT_EQ(locatePeriodically(auth_, 0, 5, collect, &delivered), ZEL_OK);
    // 1 ms periods, 5 of them: the first cycle at 50 ms is already past the duration.
    EXPECT_EQ(delivered.codes.size(), 1u);
}

}  // namespace
}  // namespace ZEL::API

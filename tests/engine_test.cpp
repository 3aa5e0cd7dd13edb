#include <gtest/gtest.h>

#include <cmath>

#include "api/one_shot_location.h"
#include "support/engine_fixture.h"
#include "support/log_capture.h"

namespace ZEL::API {
namespace {

using Core::ResultCode;
using Testing::EngineTest;
using Testing::LogCapture;

using OneShotFlow = EngineTest;

// The one-shot flow scans at 50, 500, 1000, ... 5500 ms: 12 cycles when nothing stops it.
constexpr size_t kFullLoopCycles = 12;

TEST_F(OneShotFlow, LocalFixFromThreeApsStopsAtOnce) {
    repeatScan(knownScan(3), kFullLoopCycles);
    std::optional<Core::LocationRecord> location;
    EXPECT_EQ(locate(credentials_, Core::kNoStreetAddress, location), ResultCode::kOk);
    ASSERT_TRUE(location);
    EXPECT_EQ(location->nap, 3);
    EXPECT_EQ(scansRead(), 1u);
    EXPECT_TRUE(platform_.http().calls.empty());
    EXPECT_EQ(platform_.manualClock().sleptMs(), 50u);
}

TEST_F(OneShotFlow, FixFromTwoApsKeepsScanningToTheEnd) {
    platform_.http().respond({200, locationAnswer(2)});
    repeatScan(knownScan(2), kFullLoopCycles);
    LogCapture log("ZEL_location");
    std::optional<Core::LocationRecord> location;
    EXPECT_EQ(locate(credentials_, Core::kNoStreetAddress, location), ResultCode::kOk);
    ASSERT_TRUE(location);
    EXPECT_EQ(location->nap, 2);
    EXPECT_EQ(scansRead(), kFullLoopCycles);
    // Local fixes at 50, 1000, ... 5000 ms; at 5500 ms the two APs were last merged
    // more than 5 s ago, count as new again, and with the fix's two make enough to
    // ask the server.
    EXPECT_EQ(log.count(SPI::LogPriority::kDebug, "keep scanning"), 7u);
    EXPECT_EQ(platform_.http().calls.size(), 1u);
}

TEST_F(OneShotFlow, StreetAddressSkipsTheDeviceAndAsksTheServer) {
    platform_.http().respond({200, locationAnswer(5, "Berlin")});
    repeatScan(knownScan(3), kFullLoopCycles);
    std::optional<Core::LocationRecord> location;
    EXPECT_EQ(locate(credentials_, Core::kFullStreetAddress, location), ResultCode::kOk);
    EXPECT_EQ(location->streetAddress.city, "Berlin");
    ASSERT_EQ(platform_.http().calls.size(), 1u);
    EXPECT_NE(platform_.http().calls[0].body.find("street-address-lookup='full'"),
              std::string::npos);
}

TEST_F(OneShotFlow, ServerAnswersDecideWhetherTheLoopGoesOn) {
    struct Row {
        Testing::HttpReply reply;
        ResultCode code;
        size_t requests;  // a server that cannot place the APs is asked every cycle
    };
    for (const Row& row : {Row{{200, Testing::serverAnswer("LocationRS", "<error/>")},
                               ResultCode::kCannotDetermine,
                               kFullLoopCycles},
                           Row{{500, "broken"}, ResultCode::kServerUnavailable, 1},
                           Row{{0, "", 10061}, ResultCode::kServerUnavailable, 1}}) {
        platform_.http().calls.clear();
        platform_.http().replies.assign(kFullLoopCycles, row.reply);
        platform_.wifi().scans.clear();
        repeatScan(knownScan(3), kFullLoopCycles);
        std::optional<Core::LocationRecord> location;
        EXPECT_EQ(locate(credentials_, Core::kLimitedStreetAddress, location), row.code);
        EXPECT_EQ(platform_.http().calls.size(), row.requests) << row.reply.status;
        EXPECT_TRUE(location);  // the loop ended normally: a record comes with the code
    }
}

TEST_F(OneShotFlow, NoAccessPointHeardGivesThreeAfterTheLoop) {
    std::optional<Core::LocationRecord> location;
    EXPECT_EQ(locate(credentials_, Core::kNoStreetAddress, location), ResultCode::kNoWifiInRange);
    ASSERT_TRUE(location);
    EXPECT_EQ(scansRead(), kFullLoopCycles);
    EXPECT_EQ(platform_.manualClock().sleptMs(), 5500u);  // the last cycle does not sleep
    EXPECT_EQ(locationCache().size(), 0u);                // nothing heard, nothing cached
}

TEST_F(OneShotFlow, CacheAnswersARepeatedSetAfterTwoSeconds) {
    // Two APs the server places (from its own three): asked at 3000 ms, which stops the loop.
    platform_.http().respond({200, locationAnswer(3)});
    repeatScan(knownScan(2), 2 * kFullLoopCycles);
    std::optional<Core::LocationRecord> first;
    EXPECT_EQ(locate(credentials_, Core::kLimitedStreetAddress, first), ResultCode::kOk);
    EXPECT_EQ(locationCache().size(), 1u);

    // The same two APs again: the cache answers at 2000 ms and the server is not asked.
    LogCapture log("ZEL_location");
    std::optional<Core::LocationRecord> second;
    EXPECT_EQ(locate(credentials_, Core::kLimitedStreetAddress, second), ResultCode::kOk);
    EXPECT_TRUE(log.contains("found location in cache with nap = 3"));
    EXPECT_EQ(second->nap, 3);
    EXPECT_EQ(platform_.http().calls.size(), 1u);
    EXPECT_EQ(platform_.manualClock().sleptMs(), 3000u + 2000u);
    EXPECT_EQ(locationCache().size(), 1u);  // replaced, not added
}

TEST_F(OneShotFlow, CachedFailureIsPassedOverForTheServer) {
    locationCache().store(knownScan(2), Core::LocationRecord{});  // a failed attempt, same set
    platform_.http().respond({200, locationAnswer(3)});
    repeatScan(knownScan(2), kFullLoopCycles);
    LogCapture log("ZEL_location");
    std::optional<Core::LocationRecord> location;
    EXPECT_EQ(locate(credentials_, Core::kLimitedStreetAddress, location), ResultCode::kOk);
    EXPECT_TRUE(log.contains("no-location found in cache"));
}

// A determination that only counts its calls and never finds a position.
struct CountingDetermination final : Core::LocationDetermination {
    ResultCode determine(const Core::LocationRecord*, const Core::ApList&,
                         Core::LocationRecord&) override {
        ++calls;
        return ResultCode::kCannotDetermine;
    }
    int calls = 0;
};

TEST_F(OneShotFlow, DeviceIsAskedOnlyInTheFirst100MsOfEachSecond) {
    struct Row {
        uint32_t elapsedMs;
        int lookup;
        int localCalls;
    };
    for (Row row : {Row{100, 0, 1}, Row{101, 0, 0}, Row{1000, 0, 1}, Row{2100, 0, 1},
                    Row{2101, 0, 0}, Row{50, 1, 0}}) {
        CountingDetermination local;
        LocationCache cache;
        OneShotLocationState state(
            row.lookup, local,
            [](const Core::ApList&, Core::LocationRecord&) { return ResultCode::kCannotDetermine; },
            cache);
        ScanLoopState loop{SPI::tickCount() - row.elapsedMs};
        state.onScan(loop, ResultCode::kOk, knownScan(1));
        EXPECT_EQ(local.calls, row.localCalls) << row.elapsedMs << " ms, lookup " << row.lookup;
    }
}

using PeriodicFlow = EngineTest;

// Collects the codes and positions delivered, and stops after `stopAfter` of them.
struct Delivered {
    std::vector<ResultCode> codes;
    std::vector<double> latitudes;
    size_t stopAfter = 3;
    LocationCallback callback() {
        return [this](ResultCode code, const Core::LocationRecord* location) {
            codes.push_back(code);
            if (location != nullptr) {
                latitudes.push_back(location->latitude);
            }
            return codes.size() < stopAfter ? 1 : 0;
        };
    }
};

TEST_F(PeriodicFlow, DeliversFixesUntilTheCallbackStops) {
    repeatScan(knownScan(4), 10);
    Delivered delivered;
    EXPECT_EQ(locatePeriodically(credentials_, 1000, 0, delivered.callback()), ResultCode::kOk);
    EXPECT_EQ(delivered.codes, std::vector<ResultCode>(3, ResultCode::kOk));
    EXPECT_EQ(delivered.latitudes.size(), 3u);
    EXPECT_EQ(locationCache().size(), 0u);  // periodic location never caches
    // Kept on purpose: the smoother's history is emptied on every call.
    EXPECT_EQ(locationSmoother().historySize(), 0u);
}

TEST_F(PeriodicFlow, FailuresInTheFirstPeriodAreSilent) {
    // Unknown APs only: no position. The first cycle (50 ms into a 1000 ms period)
    // stays silent; later failures reach the caller.
    repeatScan({Testing::ap("0B0000000001", -60)}, 10);
    Delivered delivered;
    delivered.stopAfter = 2;
    EXPECT_EQ(locatePeriodically(credentials_, 1000, 0, delivered.callback()), ResultCode::kOk);
    EXPECT_EQ(delivered.codes, std::vector<ResultCode>(2, ResultCode::kCannotDetermine));
    EXPECT_EQ(scansRead(), 3u);
}

TEST_F(PeriodicFlow, AdapterFailureReachesTheCallback) {
    platform_.wifi().failGet = {true};
    Delivered delivered;
    delivered.stopAfter = 1;
    EXPECT_EQ(locatePeriodically(credentials_, 500, 0, delivered.callback()),
              ResultCode::kWifiFailure);
    EXPECT_EQ(delivered.codes, std::vector<ResultCode>{ResultCode::kWifiFailure});
}

TEST_F(PeriodicFlow, PeriodZeroRunsEveryMillisecondForTheGivenCount) {
    repeatScan(knownScan(3), 100);
    Delivered delivered;
    delivered.stopAfter = 1000;
    EXPECT_EQ(locatePeriodically(credentials_, 0, 5, delivered.callback()), ResultCode::kOk);
    // 1 ms periods, 5 of them: the first cycle at 50 ms is already past the duration.
    EXPECT_EQ(delivered.codes.size(), 1u);
}

}  // namespace
}  // namespace ZEL::API

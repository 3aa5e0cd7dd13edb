#include "api/scan_loop.h"

#include <gtest/gtest.h>

#include "spi/manual_clock.h"
#include "support/log_capture.h"
#include "support/scripted_wifi_adapter.h"
#include "zelapi.h"

namespace ZEL::API {
namespace {

using Testing::AdapterScript;
using Testing::ap;
using Testing::LogCapture;

struct Call {
    uint32_t elapsed;
    int code;
    size_t recent, fresh, cached;
};

class ScanLoopTest : public ::testing::Test {
  protected:
    SPI::ManualClock clock_;
    SPI::ScopedClock scoped_{clock_};
    std::shared_ptr<AdapterScript> script_ = std::make_shared<AdapterScript>();
    std::vector<Call> calls_;

    // Runs the loop with a callback that records each call and answers from `answers`
    // (1 once they run out).
    int run(uint32_t period, uint32_t periods, std::vector<int> answers = {}) {
        ScanLoop loop(Testing::scriptedEnumerator(script_));
        size_t next = 0;
        return loop.run(period, periods,
                        [&](const ScanLoopState& state, int code, const Core::RecentApList& recent,
                            const Core::ApList& fresh, const Core::ApList& cached) {
                            calls_.push_back({SPI::tickCount() - state.startTick, code,
                                              recent.size(), fresh.size(), cached.size()});
                            return next < answers.size() ? answers[next++] : 1;
                        });
    }
};

TEST_F(ScanLoopTest, RunsUntilDurationIsStrictlyExceeded) {
    // Period 500 ms, 10 periods: the loop's own sleeps land cycles at 50, 500, 1000, ...
    // 5000 is not beyond the duration, so the cycle at 5500 is the last.
    EXPECT_EQ(run(500, 10), ZEL_OK);
    ASSERT_EQ(calls_.size(), 12u);
    EXPECT_EQ(calls_[0].elapsed, 50u);
    EXPECT_EQ(calls_[1].elapsed, 500u);
    EXPECT_EQ(calls_[10].elapsed, 5000u);
    EXPECT_EQ(calls_[11].elapsed, 5500u);
    EXPECT_EQ(script_->calls.front(), "open");
    EXPECT_EQ(script_->calls[script_->calls.size() - 2], "close");
    EXPECT_EQ(script_->calls.back(), "destroy");
}

TEST_F(ScanLoopTest, SleepsToTheNextPeriodBoundaryNeverZero) {
    // A scan that takes exactly one period lands on a boundary: the sleep is a full period.
    EXPECT_EQ(run(100, 3, {1, 1, 1, 1}), ZEL_OK);
    std::vector<uint32_t> elapsed;
    for (const Call& call : calls_) {
        elapsed.push_back(call.elapsed);
    }
    EXPECT_EQ(elapsed, (std::vector<uint32_t>{50, 100, 200, 300, 400}));
}

TEST_F(ScanLoopTest, CallbackStopsTheLoop) {
    script_->scans = {{ap("AABBCCDDEEFF", -70)}};
    LogCapture log("ZEL_periodic_scan");
    EXPECT_EQ(run(500, 0, {0}), ZEL_OK);
    ASSERT_EQ(calls_.size(), 1u);
    EXPECT_EQ(calls_[0].code, ZEL_OK);
    EXPECT_EQ(calls_[0].fresh, 1u);
    EXPECT_TRUE(log.contains("stopping"));
    EXPECT_EQ(script_->calls,
              (std::vector<std::string>{"open", "start", "get", "close", "destroy"}));
}

TEST_F(ScanLoopTest, EmptyScansStillCallBack) {
    EXPECT_EQ(run(500, 1), ZEL_OK);
    ASSERT_FALSE(calls_.empty());
    for (const Call& call : calls_) {
        EXPECT_EQ(call.code, ZEL_OK);
        EXPECT_EQ(call.fresh + call.cached, 0u);
    }
}

TEST_F(ScanLoopTest, SplitsRecentlyHeardApsIntoCachedList) {
    Core::ScannedAP a = ap("000000000001", -60), b = ap("000000000002", -61), c = ap("000000000003", -62);
    // Duplicates inside one scan are reported once.
    script_->scans = {{a, b, a}, {a, b, c}, {c}};
    EXPECT_EQ(run(1000, 0, {1, 1, 0}), ZEL_OK);
    ASSERT_EQ(calls_.size(), 3u);
    EXPECT_EQ(calls_[0].fresh, 2u);
    EXPECT_EQ(calls_[0].recent, 0u);
    EXPECT_EQ(calls_[1].fresh, 1u);  // c is new, a and b were heard 1000 ms ago
    EXPECT_EQ(calls_[1].cached, 2u);
    EXPECT_EQ(calls_[1].recent, 2u);
    EXPECT_EQ(calls_[2].cached, 1u);
    EXPECT_EQ(calls_[2].recent, 3u);
}

TEST_F(ScanLoopTest, NoAdapterIsAWifiError) {
    LogCapture log("ZEL_periodic_scan");
    ScanLoop loop([] { return SPI::AdapterList{}; });
    EXPECT_EQ(loop.run(500, 10, [](auto&&...) { return 1; }), ZEL_ERROR_WIFI);
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "couldn't find any Wi-Fi adapters"), 1u);
}

TEST_F(ScanLoopTest, OpenFailureDestroysAdapterWithoutCallback) {
    script_->failOpen = {true};
    LogCapture log("ZEL_periodic_scan");
    EXPECT_EQ(run(500, 10), ZEL_ERROR_WIFI);
    EXPECT_TRUE(calls_.empty());
    EXPECT_EQ(script_->calls, (std::vector<std::string>{"open", "destroy"}));
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "couldn't open Wi-Fi adapter"), 1u);
}

TEST_F(ScanLoopTest, StartFailureAskedCallbackStops) {
    script_->failStart = {true};
    EXPECT_EQ(run(500, 10, {0}), ZEL_ERROR_WIFI);
    ASSERT_EQ(calls_.size(), 1u);
    EXPECT_EQ(calls_[0].code, ZEL_ERROR_WIFI);
    EXPECT_EQ(script_->calls, (std::vector<std::string>{"open", "start", "close", "destroy"}));
}

TEST_F(ScanLoopTest, StartFailureAcceptedGoesOnWithoutReset) {
    script_->failStart = {true};
    EXPECT_EQ(run(500, 10, {1, 0}), ZEL_OK);
    ASSERT_EQ(calls_.size(), 2u);
    EXPECT_EQ(calls_[1].code, ZEL_OK);
    EXPECT_EQ(script_->calls,
              (std::vector<std::string>{"open", "start", "get", "close", "destroy"}));
}

TEST_F(ScanLoopTest, GetFailureResetsAdapterAndSkipsCallback) {
    script_->failGet = {false, true};
    LogCapture log("ZEL_periodic_scan");
    EXPECT_EQ(run(500, 0, {1, 1, 0}), ZEL_OK);
    ASSERT_EQ(calls_.size(), 3u);
    EXPECT_EQ(calls_[1].code, ZEL_ERROR_WIFI);
    EXPECT_EQ(calls_[2].code, ZEL_OK);
    EXPECT_EQ(script_->calls,
              (std::vector<std::string>{"open", "start", "get", "start", "get", "close", "open",
                                        "start", "get", "close", "destroy"}));
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "couldn't get scanned AP list"), 1u);
    EXPECT_TRUE(log.contains("resetting Wi-Fi adapter"));
}

TEST_F(ScanLoopTest, GetFailureStopsWhenCallbackSaysSo) {
    script_->failGet = {true};
    EXPECT_EQ(run(500, 0, {0}), ZEL_ERROR_WIFI);
    EXPECT_EQ(script_->calls,
              (std::vector<std::string>{"open", "start", "get", "close", "destroy"}));
}

TEST_F(ScanLoopTest, FailedReopenEndsLoopWithoutAsking) {
    script_->failGet = {true};
    script_->failOpen = {false, true};
    LogCapture log("ZEL_periodic_scan");
    EXPECT_EQ(run(500, 0, {1, 1, 1}), ZEL_ERROR_WIFI);
    EXPECT_EQ(calls_.size(), 1u);
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "couldn't re-open Wi-Fi adapter"), 1u);
    EXPECT_EQ(script_->calls.back(), "destroy");
}

TEST_F(ScanLoopTest, RestartFailureResetsAdapter) {
    script_->failStart = {false, true};
    LogCapture log("ZEL_periodic_scan");
    EXPECT_EQ(run(500, 0, {1, 1, 0}), ZEL_OK);
    ASSERT_EQ(calls_.size(), 3u);
    EXPECT_EQ(calls_[1].code, ZEL_ERROR_WIFI);
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "couldn't restart scanning"), 1u);
    EXPECT_EQ(script_->calls, (std::vector<std::string>{"open", "start", "get", "start", "close",
                                                        "open", "get", "close", "destroy"}));
}

TEST_F(ScanLoopTest, ZeroPeriodsRunsUntilAdapterFailureStopsIt) {
    script_->failGet = std::deque<bool>(40, false);
    script_->failGet.push_back(true);
    std::vector<int> answers(40, 1);
    answers.push_back(0);  // stop on the failure
    EXPECT_EQ(run(500, 0, answers), ZEL_ERROR_WIFI);
    ASSERT_EQ(calls_.size(), 41u);
    EXPECT_EQ(calls_.back().code, ZEL_ERROR_WIFI);
    EXPECT_GT(calls_.back().elapsed, 500u * 10);  // far beyond any period limit
}

}  // namespace
}  // namespace ZEL::API

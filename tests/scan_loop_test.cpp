#include "api/scan_loop.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/log_capture.h"
#include "support/test_platform.h"

namespace ZEL::API {
namespace {

using Core::ResultCode;
using Testing::ap;
using Testing::LogCapture;

struct Call {
    uint32_t elapsed;
    ResultCode code;
    size_t recent, fresh, cached;
};

class ScanLoopTest : public ::testing::Test {
  protected:
    Testing::TestPlatform platform_;
    Testing::AdapterScript& script_ = platform_.wifi();
    std::vector<Call> calls_;

    // Runs the loop with a callback that records each call and answers from `answers`
    // (1 once they run out).
    ResultCode run(uint32_t period, uint32_t periods, std::vector<int> answers = {}) {
        size_t next = 0;
        return ScanLoop::run(
            period, periods,
            [&](const ScanLoopState& state, ResultCode code, const Core::RecentApList& recent,
                const Core::ApList& fresh, const Core::ApList& cached) {
                calls_.push_back({SPI::tickCount() - state.startTick, code, recent.size(),
                                  fresh.size(), cached.size()});
                return next < answers.size() ? answers[next++] : 1;
            });
    }
    std::vector<uint32_t> elapsed() const {
        std::vector<uint32_t> times;
        for (const Call& call : calls_) {
            times.push_back(call.elapsed);
        }
        return times;
    }
};

TEST_F(ScanLoopTest, RunsUntilDurationIsStrictlyExceeded) {
    // Period 500 ms, 10 periods: cycles at 50, 500, 1000, ... 5000 is not beyond the
    // duration, so the cycle at 5500 is the last.
    EXPECT_EQ(run(500, 10), ResultCode::kOk);
    ASSERT_EQ(calls_.size(), 12u);
    EXPECT_EQ(calls_[1].elapsed, 500u);
    EXPECT_EQ(calls_[11].elapsed, 5500u);
    EXPECT_EQ(calls_[11].code, ResultCode::kOk);  // empty scans still call back
    EXPECT_EQ(calls_[11].fresh + calls_[11].cached, 0u);
    EXPECT_EQ(script_.calls[script_.calls.size() - 2], "close");
}

TEST_F(ScanLoopTest, SleepsToTheNextPeriodBoundaryNeverZero) {
    EXPECT_EQ(run(100, 3), ResultCode::kOk);
    EXPECT_EQ(elapsed(), (std::vector<uint32_t>{50, 100, 200, 300, 400}));
}

TEST_F(ScanLoopTest, SplitsRecentlyHeardApsIntoCachedList) {
    Core::ScannedAP a = ap("000000000001", -60), b = ap("000000000002", -61),
                    c = ap("000000000003", -62);
    script_.scans = {{a, b, a}, {a, b, c}, {c}};  // duplicates in one scan count once
    LogCapture log("ZEL_periodic_scan");
    EXPECT_EQ(run(1000, 0, {1, 1, 0}), ResultCode::kOk);
    ASSERT_EQ(calls_.size(), 3u);
    EXPECT_EQ(calls_[0].fresh, 2u);
    EXPECT_EQ(calls_[0].recent, 0u);
    EXPECT_EQ(calls_[1].fresh, 1u);  // c is new, a and b were heard 1000 ms ago
    EXPECT_EQ(calls_[1].cached, 2u);
    EXPECT_EQ(calls_[1].recent, 2u);
    EXPECT_EQ(calls_[2].cached, 1u);
    EXPECT_EQ(calls_[2].recent, 3u);
    EXPECT_TRUE(log.contains("stopping"));
}

// Each row fails the adapter's open, start and get calls as scripted ('1': this
// call fails), answers the callback with the digits of `answers` and lists the codes
// the callback saw ('o' ok, 'w' Wi-Fi failure) and the adapter calls made.
TEST_F(ScanLoopTest, AdapterFailuresResetTheAdapterOrEndTheLoop) {
    struct Row {
        const char *failOpen, *failStart, *failGet, *answers;
        ResultCode result;
        const char *codes, *adapter, *logged;
    };
    constexpr ResultCode kOk = ResultCode::kOk, kWifi = ResultCode::kWifiFailure;
    const Row rows[] = {
        {"1", "", "", "", kWifi, "", "open destroy", "couldn't open Wi-Fi adapter"},
        {"", "1", "", "0", kWifi, "w", "open start close destroy", "couldn't start scanning"},
        {"", "1", "", "10", kOk, "wo", "open start get close destroy", "couldn't start scanning"},
        {"", "", "01", "110", kOk, "owo",
         "open start get start get close open start get close destroy",
         "couldn't get scanned AP list"},
        {"", "", "1", "0", kWifi, "w", "open start get close destroy",
         "couldn't get scanned AP list"},
        {"01", "", "1", "11", kWifi, "w", "open start get close open close destroy",
         "couldn't re-open Wi-Fi adapter"},
        {"", "01", "", "110", kOk, "owo", "open start get start close open get close destroy",
         "couldn't restart scanning"},
    };
    auto flags = [](std::string_view text) {
        std::deque<bool> fails;
        for (char c : text) {
            fails.push_back(c == '1');
        }
        return fails;
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.adapter);
        script_ = {};
        script_.failOpen = flags(row.failOpen);
        script_.failStart = flags(row.failStart);
        script_.failGet = flags(row.failGet);
        calls_.clear();
        LogCapture log("ZEL_periodic_scan");
        std::vector<int> answers;
        for (const char* c = row.answers; *c != 0; ++c) {
            answers.push_back(*c - '0');
        }
        EXPECT_EQ(run(500, 0, answers), row.result);
        std::string codes, adapter;
        for (const Call& call : calls_) {
            codes += call.code == kOk ? 'o' : call.code == kWifi ? 'w' : '?';
        }
        for (const std::string& call : script_.calls) {
            adapter += (adapter.empty() ? "" : " ") + call;
        }
        EXPECT_EQ(codes, row.codes);
        EXPECT_EQ(adapter, row.adapter);
        EXPECT_EQ(log.count(SPI::LogPriority::kError, row.logged), 1u);
        EXPECT_EQ(log.contains("resetting Wi-Fi adapter"),
                  std::count(script_.calls.begin(), script_.calls.end(), "open") == 2);
    }
}

TEST_F(ScanLoopTest, NoAdapterIsAWifiError) {
    platform_.setWifiPresent(false);
    LogCapture log("ZEL_periodic_scan");
    EXPECT_EQ(run(500, 10), ResultCode::kWifiFailure);
    EXPECT_TRUE(calls_.empty());
    EXPECT_EQ(log.count(SPI::LogPriority::kError, "couldn't find any Wi-Fi adapters"), 1u);
}

}  // namespace
}  // namespace ZEL::API

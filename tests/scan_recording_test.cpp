#include "local/scan_recording.h"

#include <gtest/gtest.h>

namespace ZEL::API {
namespace {

std::string errorOf(std::string_view line) {
    std::string error;
    EXPECT_FALSE(Local::parseRecordedScan(line, error).has_value()) << line;
    return error;
}

TEST(ScanRecording, ReadsTimeMacRssAndSsidOfEachAp) {
    std::string error;
    const auto scan = Local::parseRecordedScan(
        R"({"t_ms": 1750000000123, "aps": [{"mac": "AABBCCDDEEFF", "rss": -71, "ssid": "cafe"},)"
        R"( {"mac": "00:11:22:33:44:55", "rss": -90, "extra": true}], "device": "x"})",
        error);
    ASSERT_TRUE(scan.has_value()) << error;
    EXPECT_EQ(scan->timeMs, 1750000000123u);
    ASSERT_EQ(scan->aps.size(), 2u);
    EXPECT_EQ(Core::macText(scan->aps[0].mac), "AABBCCDDEEFF");
    EXPECT_EQ(scan->aps[0].rss, -71);
    EXPECT_EQ(scan->aps[0].ssidText(), "cafe");
    EXPECT_EQ(scan->aps[0].time, (Core::TimeStamp{1750000000, 123}));
    EXPECT_EQ(scan->aps[1].ssidLength, 0);
}

TEST(ScanRecording, RejectsMalformedLinesWithAReason) {
    EXPECT_EQ(errorOf("not json"), "not a JSON object");
    const std::string badTime = "\"t_ms\" missing or not an integer in 0..4294967295999";
    EXPECT_EQ(errorOf(R"({"aps": []})"), badTime);
    EXPECT_EQ(errorOf(R"({"t_ms": 4294967296000, "aps": []})"), badTime);
    EXPECT_EQ(errorOf(R"({"t_ms": 1, "aps": {}})"), "\"aps\" missing or not an array");
    EXPECT_EQ(errorOf(std::string(Local::kMaxRecordingLineBytes + 1, ' ')), "line too long");
}

}  // namespace
}  // namespace ZEL::API

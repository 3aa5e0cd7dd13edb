#include "local/scan_recording.h"

#include <gtest/gtest.h>

#include <sstream>

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
    EXPECT_EQ(Core::macText(scan->aps[1].mac), "001122334455");
    EXPECT_EQ(scan->aps[1].ssidLength, 0);
}

TEST(ScanRecording, FormattedLinesReadBack) {
    Local::RecordedScan scan;
    scan.timeMs = 4294967295999ull;  // the last representable millisecond
    Core::ScannedAP ap;
    ap.mac = *Core::parseMacText("0A0B0C0D0E0F");
    ap.rss = -32768;
    ap.setSsid("quote \" and \\ here");
    scan.aps.push_back(ap);
    ap.rss = 32767;
    ap.setSsid("");
    scan.aps.push_back(ap);
    std::string error;
    const auto back = Local::parseRecordedScan(Local::formatRecordedScan(scan), error);
    ASSERT_TRUE(back.has_value()) << error;
    EXPECT_EQ(back->timeMs, scan.timeMs);
    ASSERT_EQ(back->aps.size(), 2u);
    EXPECT_EQ(back->aps[0].rss, -32768);
    EXPECT_EQ(back->aps[0].ssidText(), "quote \" and \\ here");
    EXPECT_EQ(back->aps[1].rss, 32767);
    EXPECT_EQ(back->aps[1].mac, ap.mac);
    // An empty scan is a scan.
    EXPECT_TRUE(Local::parseRecordedScan(R"({"t_ms":0,"aps":[]})", error).has_value());
}

TEST(ScanRecording, RejectsMalformedLinesWithAReason) {
    EXPECT_EQ(errorOf("not json"), "not a JSON object");
    EXPECT_EQ(errorOf("[1, 2]"), "not a JSON object");
    EXPECT_EQ(errorOf(R"({"t_ms": 1, "aps": [)"), "not a JSON object");
    const std::string badTime = "\"t_ms\" missing or not an integer in 0..4294967295999";
    EXPECT_EQ(errorOf(R"({"aps": []})"), badTime);
    EXPECT_EQ(errorOf(R"({"t_ms": -1, "aps": []})"), badTime);
    EXPECT_EQ(errorOf(R"({"t_ms": 1.5, "aps": []})"), badTime);
    EXPECT_EQ(errorOf(R"({"t_ms": "1", "aps": []})"), badTime);
    EXPECT_EQ(errorOf(R"({"t_ms": 4294967296000, "aps": []})"), badTime);
    EXPECT_EQ(errorOf(R"({"t_ms": 1})"), "\"aps\" missing or not an array");
    EXPECT_EQ(errorOf(R"({"t_ms": 1, "aps": {}})"), "\"aps\" missing or not an array");
}

TEST(ScanRecording, RejectsALineWithOneBadApNamingIt) {
    const std::string good = R"({"mac": "AABBCCDDEEFF", "rss": -60})";
    auto line = [&](const std::string& bad) {
        return R"({"t_ms": 1, "aps": [)" + good + ", " + bad + "]}";
    };
    EXPECT_EQ(errorOf(line("7")), "AP 2 is not an object");
    EXPECT_EQ(errorOf(line(R"({"rss": -60})")), "AP 2 has no \"mac\" string");
    EXPECT_EQ(errorOf(line(R"({"mac": "AABBCCDDEE", "rss": -60})")),
              "AP 2 has a \"mac\" that is not 12 hex digits");
    EXPECT_EQ(errorOf(line(R"({"mac": "AABBCCDDEEGG", "rss": -60})")),
              "AP 2 has a \"mac\" that is not 12 hex digits");
    const std::string badRss = "AP 2 has no \"rss\" integer in -32768..32767";
    EXPECT_EQ(errorOf(line(R"({"mac": "AABBCCDDEEFF"})")), badRss);
    EXPECT_EQ(errorOf(line(R"({"mac": "AABBCCDDEEFF", "rss": -60.5})")), badRss);
    EXPECT_EQ(errorOf(line(R"({"mac": "AABBCCDDEEFF", "rss": 32768})")), badRss);
    EXPECT_EQ(errorOf(line(R"({"mac": "AABBCCDDEEFF", "rss": -32769})")), badRss);
    EXPECT_EQ(errorOf(line(R"({"mac": "AABBCCDDEEFF", "rss": -60, "ssid": 5})")),
              "AP 2 has an \"ssid\" that is not a string");
}

TEST(ScanRecordingReader, NumbersLinesSkipsBlankOnesAndGoesOnAfterABadOne) {
    std::istringstream in(
        "{\"t_ms\":1,\"aps\":[]}\n"
        "\n"
        "   \r\n"
        "{\"t_ms\":oops}\n"
        "{\"t_ms\":3,\"aps\":[{\"mac\":\"AABBCCDDEEFF\",\"rss\":-50}]}");  // no final newline
    Local::ScanRecordingReader reader(in);
    auto first = reader.next();
    ASSERT_TRUE(first && first->scan);
    EXPECT_EQ(first->line, 1u);
    auto bad = reader.next();
    ASSERT_TRUE(bad.has_value());
    EXPECT_FALSE(bad->scan.has_value());
    EXPECT_EQ(bad->line, 4u);
    EXPECT_EQ(bad->error, "not a JSON object");
    auto last = reader.next();
    ASSERT_TRUE(last && last->scan);
    EXPECT_EQ(last->line, 5u);
    EXPECT_EQ(last->scan->timeMs, 3u);
    EXPECT_FALSE(reader.next().has_value());
}

TEST(ScanRecording, OverlongLinesAreRejectedUnparsed) {
    std::string line(Local::kMaxRecordingLineBytes + 1, ' ');
    EXPECT_EQ(errorOf(line), "line too long");
}

}  // namespace
}  // namespace ZEL::API

// The observation readers (learn/observation_readers.h): every reader's boundaries
// as rows of text with what must come out of them.
#include <gtest/gtest.h>

#include <functional>

#include "learn/observation_readers.h"

namespace ZEL::Learn {
namespace {

const std::string kWigleHead =
    "WigleWifi-1.6,appRelease=1,model=x,release=1,device=x,display=x,board=x,brand=x\n"
    "MAC,SSID,AuthMode,FirstSeen,Channel,RSSI,CurrentLatitude,CurrentLongitude,"
    "AltitudeMeters,AccuracyMeters,Type\n";

ReadResult mapped(std::string_view text) {
    std::string error;
    auto columns =
        parseColumnMapping("mac=BSSID,latitude=lat,longitude=lon,rss=level,time=t", error);
    return readMappedCsv(text, *columns);
}

TEST(ObservationReaders, EachReaderKeepsGoodRowsAndReportsOrFiltersTheRest) {
    struct Row {
        const char* name;
        std::function<ReadResult(std::string_view)> read;
        std::string text;
        size_t observations;
        std::vector<size_t> issueLines;
        size_t filtered;
    } rows[] = {
        {"wigle",
         readWigle,
         kWigleHead +
             "aa:bb:cc:dd:ee:f0,\"cafe, up\",[WPA2],2024-01-01 10:00:00,6,-50,48,11,5,4,WIFI\n"
             "aa:bb:cc:dd:ee:f0,x,[ESS],2024-01-01 10:00:01,6,-50,48,11,5,4,BLE\n"
             "aa:bb:cc:dd:ee:f2,x,[ESS],2024-01-01 10:00:02,6,-40,0,0,5,4,WIFI\n"
             "aa:bb:cc:dd:ee:f4,x,[ESS],2024-01-01 10:00:02,6,loud,1,1,5,4,WIFI\n"
             "aa:bb:cc:dd:ee:f6,x_nomap,[ESS],2024-01-01 10:00:02,6,-40,1,1,5,4,WIFI\n"
             "01:bb:cc:dd:ee:f6,x,[ESS],2024-01-01 10:00:02,6,-40,1,1,5,4,WIFI\n"
             "aa:bb:cc:dd:ee:f8,x,[ESS],yesterday,6,-40,1,1,5,4,WIFI\n"
             "aa:bb:cc:dd:ee:fa,x,[ESS],,6,0,1,181,5,4,WIFI\n"
             "aa:bb:cc:dd:ee:fc,x,[ESS],,6,0,-90,180,,,WIFI\n",
         2,
         {5, 6, 9, 10},
         2},
        {"geosubmit body over lines",
         [](std::string_view text) { return readGeosubmit(text); },
         "\n{\"items\": [\n"
         " {\"timestamp\": 1700000000000, \"position\": {\"latitude\": 48, \"longitude\": 11,"
         "  \"accuracy\": 8, \"age\": 500}, \"wifiAccessPoints\": ["
         "   {\"macAddress\": \"aa:bb:cc:dd:ee:f0\", \"signalStrength\": -61, \"age\": 1500},"
         "   {\"macAddress\": \"aabbccddeef2\", \"ssid\": \"home_nomap\"},"
         "   {\"macAddress\": \"ffffffffffff\"}, {\"macAddress\": \"000000000000\"},"
         "   {\"macAddress\": \"nope\"}, {\"signalStrength\": -3}, 7,"
         "   {\"macAddress\": \"aabbccddeef4\", \"signalStrength\": \"loud\"}]},"
         " {\"position\": {\"latitude\": 91, \"longitude\": 11},"
         "  \"wifiAccessPoints\": [{\"macAddress\": \"aabbccddeef6\"}]},"
         " {\"position\": {\"latitude\": \"48\", \"longitude\": 11}},"
         " {\"cellTowers\": []}, {\"position\": {\"latitude\": 1, \"longitude\": 2}}]}\n",
         1,
         {2, 2, 2, 2, 2, 2, 2},
         3},
        {"geosubmit lines",
         [](std::string_view text) { return readGeosubmit(text); },
         "{\"items\":[{\"position\":{\"latitude\":1,\"longitude\":2},\"wifiAccessPoints\":"
         "[{\"macAddress\":\"aabbccddeef0\"}]}]}\n"
         "{\"position\":{\"latitude\":1,\"longitude\":2},\"wifiAccessPoints\":"
         "[{\"macAddress\":\"aabbccddeef2\"}]}\n"
         "{\"items\": \n" +
             std::string(40, '[') + "\n{\"items\":{}}\n[1]\n",
         2,
         {3, 4, 5, 6},
         0},
        {"recording",
         readRecording,
         "{\"t_ms\":5,\"latitude\":48,\"longitude\":11,\"accuracy\":3,\"aps\":["
         "{\"mac\":\"AABBCCDDEEF0\",\"rss\":-70},{\"mac\":\"AABBCCDDEEF2\",\"rss\":-80,"
         "\"ssid\":\"a_nomap\"}]}\n"
         "{\"t_ms\":6,\"aps\":[{\"mac\":\"AABBCCDDEEF0\",\"rss\":-70}]}\n"
         "{\"t_ms\":7,\"latitude\":48,\"aps\":[]}\n"
         "{\"t_ms\":8,\"latitude\":48,\"longitude\":11,\"accuracy\":-1,\"aps\":[]}\n",
         1,
         {2, 3, 4},
         1},
        {"mapped CSV",
         mapped,
         "Lat,BSSID,Lon,Level,T\n"
         "48,AABBCCDDEEF0,11,-60,1700000000\n"
         "48,AABBCCDDEEF0,11,-60,1700000000000\n"
         "48,AABBCCDDEEF0,11,-60,2024-01-01 10:00:00\n"
         "48,AABBCCDDEEF0,11,-60,\n"
         "48,AABBCCDDEEF0,11,-60,soon\n"
         "48,AABBCCDDEEF0,x,-60,1\n"
         "48,AABBCCDDEEF0,11\n"
         "48,0180C2000000,11,-60,1\n",
         4,
         {6, 7, 8},
         1},
    };
    for (const Row& row : rows) {
        const ReadResult result = row.read(row.text);
        EXPECT_EQ(result.error, "") << row.name;
        EXPECT_EQ(result.observations.size(), row.observations) << row.name;
        std::vector<size_t> lines;
        for (const Tiles::CsvIssue& issue : result.issues) {
            lines.push_back(issue.line);
        }
        EXPECT_EQ(lines, row.issueLines) << row.name;
        EXPECT_EQ(result.filtered, row.filtered) << row.name;
    }
}

TEST(ObservationReaders, FieldsUnitsAndForms) {
    const Observation wigle = readWigle(kWigleHead +
                                        "aa:bb:cc:dd:ee:f0,,,2024-01-01 10:00:00,6,-50,48.5,"
                                        "11.25,5,4.5,WIFI\n")
                                  .observations.at(0);
    EXPECT_EQ(Core::macText(wigle.mac), "AABBCCDDEEF0");
    EXPECT_EQ(wigle.latitude, 48.5);
    EXPECT_EQ(wigle.longitude, 11.25);
    EXPECT_EQ(wigle.accuracy, 4.5);
    EXPECT_EQ(wigle.rss, -50);
    EXPECT_EQ(wigle.timeMs, 1'704'103'200'000u);

    // Times: the AP's age counts back from the report's timestamp.
    const Observation submitted =
        readGeosubmit(
            "{\"timestamp\":1000000,\"position\":{\"latitude\":1,\"longitude\":2,"
            "\"accuracy\":7},\"wifiAccessPoints\":[{\"macAddress\":\"AABBCCDDEEF0\","
            "\"signalStrength\":-61,\"age\":1500}]}")
            .observations.at(0);
    EXPECT_EQ(submitted.timeMs, 998'500u);
    EXPECT_EQ(submitted.accuracy, 7);
    EXPECT_EQ(submitted.rss, -61);
    // The older item format's times, with their offsets; 0: refused.
    const std::pair<const char*, uint64_t> zoned[] = {
        {"2026-11-23T05:57:05+0630", 1'795'390'025'000},
        {"2026-11-22T23:27:05.25Z", 1'795'390'025'250},
        {"2026-11-22T18:27:05.1234-05:00", 1'795'390'025'123},
        {"2026-11-22T23:27:05+24", 0},
        {"2026-11-22T23:27:05 Z", 0}};
    for (const auto& [time, ms] : zoned) {
        const ReadResult older =
            readGeosubmit(R"({"lat":1,"lon":2,"accuracy":3,"time":")" + std::string(time) +
                          R"(","wifi":[{"key":"aabbccddeef0","signal":-50}]})");
        EXPECT_EQ(older.observations.empty() ? 0 : older.observations[0].timeMs, ms) << time;
        EXPECT_EQ(older.issues.size(), ms == 0 ? 1u : 0u) << time;
    }

    const std::vector<Observation> times =
        mapped(
            "lat,bssid,lon,level,t\n1,AABBCCDDEEF0,2,-60,1700000000\n"
            "1,AABBCCDDEEF0,2,-60,1700000000123\n1,AABBCCDDEEF0,2,0,\n")
            .observations;
    EXPECT_EQ(times.at(0).timeMs, 1'700'000'000'000u);  // seconds
    EXPECT_EQ(times.at(1).timeMs, 1'700'000'000'123u);  // milliseconds
    EXPECT_EQ(times.at(2).rss, 0);                      // 0 dBm: not known

    std::string error;
    for (const char* bad :
         {"mac=a,latitude=b", "mac=a,latitude=b,longitude=c,mac=d",
          "mac=a,latitude=b,longitude=c,height=d", "mac=a,latitude=,longitude=c"}) {
        EXPECT_FALSE(parseColumnMapping(bad, error)) << bad;
    }
    auto positions = parseColumnMapping("mac=m,latitude=y,longitude=x", error);
    EXPECT_EQ(readMappedCsv("m,y,x\nAABBCCDDEEF0,1,2\n", *positions).positions.size(), 1u);
    EXPECT_NE(mapped("bssid,lat,lon\n").error, "");  // the rss column is missing

    // Forms recognised by readAny.
    EXPECT_EQ(readAny(kWigleHead + "aa:bb:cc:dd:ee:f0,,,,6,-50,1,2,5,4,WIFI\n", nullptr)
                  .observations.size(),
              1u);
    EXPECT_EQ(readAny("{\"t_ms\":1,\"latitude\":1,\"longitude\":2,\"aps\":[{\"mac\":"
                      "\"AABBCCDDEEF0\",\"rss\":-1}]}",
                      nullptr)
                  .observations.size(),
              1u);
    EXPECT_EQ(readAny("mac,latitude,longitude\nAABBCCDDEEF0,1,2\n01BBCCDDEEF0,1,2\n", nullptr)
                  .positions.size(),
              1u);
}

}  // namespace
}  // namespace ZEL::Learn

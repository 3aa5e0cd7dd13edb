// `zel tiles` end to end: the real program on real files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "support/hand_built_tile.h"
#include "support/location_server_fixture.h"

namespace {

// Runs `zel ARGUMENTS`; returns its exit status and its standard output's lines.
std::pair<int, std::vector<std::string>> zel(const std::string& arguments) {
    FILE* pipe = popen(
        (std::string(ZEL_BINARY_DIR) + "/bin/zel " + arguments + " 2>/dev/null").c_str(), "r");
    std::vector<std::string> lines;
    char buffer[4096];
    while (pipe && std::fgets(buffer, sizeof buffer, pipe)) {
        lines.emplace_back(buffer, std::strcspn(buffer, "\n"));
    }
    const int status = pipe ? pclose(pipe) : -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, lines};
}

TEST(ZelTilesCli, BuildsSkippingBadLinesThenLooksUpAndDescribes) {
    ZEL::Testing::TempDir dir;
    const std::string text =
        "mac,latitude,longitude,quality,signal_exponent\n"
        "AA:BB:CC:DD:EE:01,48.137154,11.576124,40,0.3\n"
        "not-a-mac,48.1,11.5,40,0.3\n"
        "AA:BB:CC:DD:EE:02,-33.86,151.21,25,0.2\n";
    const std::string csv = dir.write("aps.csv", {text.begin(), text.end()});
    const std::string out = dir.path() + "/city.zel";
    auto [built, summary] = zel("tiles build --json --realm city -o " + out + " " + csv);
    ASSERT_EQ(built, 0);
    EXPECT_EQ(nlohmann::json::parse(summary.at(0))["access_points"], 2);
    EXPECT_EQ(nlohmann::json::parse(summary.at(0))["skipped_lines"], 1);

    auto [looked, found] =
        zel("tiles lookup --json --realm city " + out + " aabbccddee02 000000000000");
    ASSERT_EQ(looked, 0);
    ASSERT_EQ(found.size(), 2u);
    auto first = nlohmann::json::parse(found[0]);
    EXPECT_EQ(first["mac"], "AABBCCDDEE02");
    EXPECT_NEAR(first["latitude"].get<double>(), -33.86, 1e-5);
    EXPECT_EQ(first["quality"], 25);
    EXPECT_EQ(nlohmann::json::parse(found[1]),
              nlohmann::json::parse(R"({"mac":"000000000000","found":false})"));

    auto [described, info] = zel("tiles info --json --realm city " + out);
    ASSERT_EQ(described, 0);
    EXPECT_EQ(nlohmann::json::parse(info.at(0))["records"], 2);

    // Failures: another realm, a bad MAC, a missing input.
    for (const std::string& arguments :
         {"tiles info --json --realm other " + out, "tiles lookup --realm city " + out + " 12345",
          "tiles build -o " + dir.path() + "/x.zel " + dir.path() + "/none.csv"}) {
        EXPECT_EQ(zel(arguments).first, 1) << arguments;
    }
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A download happens when the copy differs from the server's file, only with a
// valid key and for the server's realm; a program that mapped the old copy keeps
// reading it while the new one takes its place.
TEST(ZelTilesCli, FetchReplacesTheCopyOnlyWhenTheServerHasAnother) {
    using ZEL::Testing::TestLocationServer;
    auto server = TestLocationServer::start();
    ASSERT_NE(server, nullptr);
    server->service().users().addKey("k", ZEL::Testing::kServerRealm);
    const ZEL::Testing::TempDir dir;
    const std::string copy = dir.path() + "/tiles.zel", other = dir.path() + "/other.zel";
    const std::string url = "http://127.0.0.1:" + std::to_string(server->port()) + "/v1/tiles/";
    const std::string served = contents(TestLocationServer::tilePath());
    ASSERT_TRUE(ZEL::Tiles::TileWriter::writeFile(other, TestLocationServer::tileAccessPoints(500),
                                                  ZEL::Testing::kServerRealm)
                    .ok);
    const std::string otherBytes = contents(other);
    const std::tuple<std::string, int, std::string> rows[] = {
        {"acme?key=wrong", 1, ""},
        {"_?key=k", 1, ""},  // the plain realm: not this server's
        {"acme", 1, ""},
        {"acme?key=k", 0, copy + " updated"},
        {"acme?key=k", 0, copy + " is up to date"},
        {"rename", 0, ""},  // the copy replaced by another file, which is mapped
        {"acme?key=k", 0, copy + " updated"},
    };
    const void* mapped = MAP_FAILED;
    for (const auto& [query, status, said] : rows) {
        if (query == "rename") {
            std::rename(other.c_str(), copy.c_str());
            const int fd = open(copy.c_str(), O_RDONLY);
            mapped = mmap(nullptr, otherBytes.size(), PROT_READ, MAP_SHARED, fd, 0);
            close(fd);
            continue;
        }
        auto [exit, lines] = zel("tiles fetch " + url + query + " -o " + copy);
        EXPECT_EQ(exit, status) << query;
        EXPECT_EQ(lines.empty() ? "" : lines[0].substr(0, said.size()), said) << query;
        EXPECT_EQ(contents(copy), status == 0 ? served : "") << query;
    }
    ASSERT_NE(mapped, MAP_FAILED);
    EXPECT_EQ(std::string(static_cast<const char*>(mapped), otherBytes.size()), otherBytes);
}

TEST(ZelLearnCli, LearnsFromSeveralFormatsAtOnce) {
    ZEL::Testing::TempDir dir;
    std::string reports, wigle =
                             "WigleWifi-1.4,model=x\nMAC,SSID,FirstSeen,RSSI,CurrentLatitude,"
                             "CurrentLongitude,AccuracyMeters,Type\n";
    char line[256];
    for (int i = 0; i < 6; ++i) {  // two APs heard around 48.1,11.5; a hotspot along 6 km
        std::snprintf(line, sizeof line,
                      "{\"timestamp\":%d000,\"position\":{\"latitude\":%.4f,\"longitude\":%.4f},"
                      "\"wifiAccessPoints\":[{\"macAddress\":\"AABBCCDDEE01\",\"signalStrength\":-"
                      "60},{\"macAddress\":\"AABBCCDDEE03\"}]}\n",
                      1'700'000'000 + i * 60, 48.1 + (i % 2) * 1e-4, 11.5 + (i / 2) * 1e-4);
        reports += line;
        std::snprintf(line, sizeof line,
                      "AA:BB:CC:DD:EE:02,car,2024-01-01 10:00:0%d,-50,%.2f,11,5,WIFI\n", i,
                      48.0 + i * 0.01);
        wigle += line;
    }
    const std::string a = dir.write("r.jsonl", {reports.begin(), reports.end()}),
                      b = dir.write("w.csv", {wigle.begin(), wigle.end()});
    auto [learned, summary] = zel("learn --json -o " + dir.path() + "/l.zel " + a + " " + b);
    ASSERT_EQ(learned, 0);
    const auto learnt = nlohmann::json::parse(summary.at(0));
    EXPECT_EQ(learnt["observations"], 18);
    EXPECT_EQ(learnt["access_points"], 2);
    EXPECT_EQ(learnt["left_out_moving"], 1);
    auto [looked, found] = zel("tiles lookup --json " + dir.path() + "/l.zel aabbccddee01");
    EXPECT_NEAR(nlohmann::json::parse(found.at(0))["latitude"].get<double>(), 48.10005, 2e-5);
    EXPECT_EQ(zel("learn --columns mac=m -o " + dir.path() + "/x.zel " + a).first, 1);
}

}  // namespace

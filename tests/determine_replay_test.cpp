// End to end: `zel determine` replays recorded scans in one process, and over the
// committed sample walk it finds the walker.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "local/position_estimate.h"
#include "sim/simulated_walk.h"

namespace ZEL {
namespace {

TEST(DetermineReplay, SampleWalkGivesFixesCloseToTheTruth) {
    const std::string examples = std::string(ZEL_SOURCE_DIR) + "/examples/";
    std::ifstream truthFile(examples + "sample-walk-truth.csv");
    std::vector<std::string> errors;
    std::map<uint64_t, Sim::TruthPoint> truth;
    for (const Sim::TruthPoint& point : Sim::readTruthCsv(truthFile, errors)) {
        truth.emplace(point.timeMs, point);
    }
    ASSERT_TRUE(errors.empty());

    FILE* pipe = popen((std::string(ZEL_BINARY_DIR) + "/bin/zel determine --json --db " + examples +
                        "sample-city.zel --scans " + examples + "sample-walk.jsonl 2>/dev/null")
                           .c_str(),
                       "r");
    ASSERT_NE(pipe, nullptr);
    size_t lines = 0;
    std::vector<double> distances;
    char buffer[65536];
    while (std::fgets(buffer, sizeof buffer, pipe)) {
        ++lines;
        const auto line = nlohmann::json::parse(buffer);
        const auto point = truth.find(line.at("t_ms").get<uint64_t>());
        ASSERT_NE(point, truth.end());
        if (line.at("code").get<int>() != 0) {
            continue;
        }
        EXPECT_LE(line.at("nap").get<size_t>(), line.at("known_aps").size());
        const double error = Local::greatCircleDistance(
            line.at("latitude").get<double>(), line.at("longitude").get<double>(),
            point->second.latitude, point->second.longitude);
        EXPECT_LT(error, 100.0) << line.at("t_ms");
        distances.push_back(error);
    }
    const int status = pclose(pipe);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(lines, truth.size());
    EXPECT_GE(distances.size() * 100, lines * 95);
    ASSERT_FALSE(distances.empty());
    std::sort(distances.begin(), distances.end());
    EXPECT_LT(distances[distances.size() / 2], 40.0);
}

}  // namespace
}  // namespace ZEL

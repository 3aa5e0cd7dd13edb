// End to end: `zel determine` replays recorded scans in one process, and over the
// committed sample walk it finds the walker.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "local/position_estimate.h"
#include "sim/simulated_walk.h"
#include "support/hand_built_tile.h"

namespace ZEL {
namespace {

const std::string kZel = std::string(ZEL_BINARY_DIR) + "/bin/zel";
const std::string kExamples = std::string(ZEL_SOURCE_DIR) + "/examples/";

// Runs `command` through the shell; returns its standard output (and error, when
// `withErrors`) and sets `status` to its exit status.
std::string run(const std::string& command, int& status, bool withErrors = false) {
    FILE* pipe = popen((command + (withErrors ? " 2>&1" : " 2>/dev/null")).c_str(), "r");
    std::string output;
    if (pipe == nullptr) {
        status = -1;
        return output;
    }
    char buffer[4096];
    size_t read = 0;
    while ((read = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        output.append(buffer, read);
    }
    const int raw = pclose(pipe);
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return output;
}

std::vector<nlohmann::json> jsonLines(const std::string& text) {
    std::vector<nlohmann::json> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(nlohmann::json::parse(line));
    }
    return lines;
}

TEST(DetermineReplay, SampleWalkGivesFixesCloseToTheTruth) {
    int status = 0;
    const std::string output = run(kZel + " determine --json --db " + kExamples +
                                       "sample-city.zel --scans " + kExamples + "sample-walk.jsonl",
                                   status);
    ASSERT_EQ(status, 0);
    std::ifstream truthFile(kExamples + "sample-walk-truth.csv");
    std::vector<std::string> errors;
    std::map<uint64_t, Sim::TruthPoint> truth;
    for (const Sim::TruthPoint& point : Sim::readTruthCsv(truthFile, errors)) {
        truth.emplace(point.timeMs, point);
    }
    ASSERT_TRUE(errors.empty());
    const auto lines = jsonLines(output);
    ASSERT_EQ(lines.size(), truth.size());
    size_t fixes = 0;
    std::vector<double> distances;
    for (const nlohmann::json& line : lines) {
        const auto point = truth.find(line.at("t_ms").get<uint64_t>());
        ASSERT_NE(point, truth.end());
        if (line.at("code").get<int>() != 0) {
            continue;
        }
        ++fixes;
        EXPECT_LE(line.at("nap").get<size_t>(), line.at("known_aps").size());
        const double error = Local::greatCircleDistance(
            line.at("latitude").get<double>(), line.at("longitude").get<double>(),
            point->second.latitude, point->second.longitude);
        EXPECT_LT(error, 100.0) << line.at("t_ms");
        distances.push_back(error);
    }
    EXPECT_GE(fixes * 100, lines.size() * 95);
    std::sort(distances.begin(), distances.end());
    ASSERT_FALSE(distances.empty());
    EXPECT_LT(distances[distances.size() / 2], 40.0);
}

}  // namespace
}  // namespace ZEL

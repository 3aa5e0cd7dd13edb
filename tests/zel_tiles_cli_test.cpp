// `zel tiles` end to end: the real program on real files.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/hand_built_tile.h"

namespace {

struct ProgramRun {
    int status = -1;
    std::vector<std::string> lines;  // standard output
};

ProgramRun zel(const std::string& arguments) {
    ProgramRun run;
    std::string command = std::string(ZEL_BINARY_DIR) + "/bin/zel " + arguments + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) {
        return run;
    }
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe)) {
        std::string line(buffer);
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
        }
        run.lines.push_back(line);
    }
    int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

class ZelTilesCli : public ::testing::Test {
  protected:
    std::string write(const std::string& name, const std::string& text) {
        return dir_.write(name, std::vector<uint8_t>(text.begin(), text.end()));
    }
    ZEL::Testing::TempDir dir_;
};

TEST_F(ZelTilesCli, BuildsSkippingBadLinesThenLooksUpAndDescribes) {
    std::string csv = write("aps.csv",
                            "mac,latitude,longitude,quality,signal_exponent\n"
                            "AA:BB:CC:DD:EE:01,48.137154,11.576124,40,0.3\n"
                            "not-a-mac,48.1,11.5,40,0.3\n"
                            "AA:BB:CC:DD:EE:02,-33.86,151.21,25,0.2\n");
    std::string out = dir_.path() + "/city.zel";
    ProgramRun build = zel("tiles build --json --realm city -o " + out + " " + csv);
    ASSERT_EQ(build.status, 0);
    ASSERT_EQ(build.lines.size(), 1u);
    auto summary = nlohmann::json::parse(build.lines[0]);
    EXPECT_EQ(summary["access_points"], 2);
    EXPECT_EQ(summary["skipped_lines"], 1);

    ProgramRun lookup =
        zel("tiles lookup --json --realm city " + out + " aabbccddee02 AA-BB-CC-DD-EE-03");
    ASSERT_EQ(lookup.status, 0);
    ASSERT_EQ(lookup.lines.size(), 2u);
    auto found = nlohmann::json::parse(lookup.lines[0]);
    EXPECT_EQ(found["mac"], "AABBCCDDEE02");
    EXPECT_EQ(found["found"], true);
    EXPECT_NEAR(found["latitude"].get<double>(), -33.86, 1e-5);
    EXPECT_EQ(found["quality"], 25);
    EXPECT_EQ(nlohmann::json::parse(lookup.lines[1]),
              nlohmann::json::parse(R"({"mac":"AABBCCDDEE03","found":false})"));

    ProgramRun info = zel("tiles info --json --realm city " + out);
    ASSERT_EQ(info.status, 0);
    auto file = nlohmann::json::parse(info.lines.at(0));
    EXPECT_EQ(file["valid"], true);
    EXPECT_EQ(file["records"], 2);
    EXPECT_EQ(info.lines.size(), 1 + file["tiles"].get<size_t>());

    EXPECT_EQ(zel("tiles info --json --realm other " + out).status, 1);
    EXPECT_EQ(zel("tiles lookup --realm city " + out + " 12345").status, 1);
}

TEST_F(ZelTilesCli, BuildFailsWhenNothingUsableRemains) {
    std::string csv = write("bad.csv", "mac,latitude,longitude\nxx,1,2\n");
    EXPECT_EQ(zel("tiles build -o " + dir_.path() + "/x.zel " + csv).status, 1);
    EXPECT_EQ(zel("tiles build -o " + dir_.path() + "/x.zel " + dir_.path() + "/none.csv").status,
              1);
}

}  // namespace

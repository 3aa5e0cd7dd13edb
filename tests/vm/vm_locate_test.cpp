// Runs inside the test VM: the library end to end on a real Wi-Fi stack. A tile
// file places the VM's access points at known positions; `zel locate` (the real
// program, through the library's exports and the nl80211 adapter) must return the
// position the on-device estimator computes for the scan the station hears.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <sstream>

#include "core/scanned_ap.h"
#include "local/location_determination_private.h"
#include "local/location_history.h"
#include "tiles/tile_writer.h"

namespace ZEL::API {
namespace {

TEST(VmLocate, ZelLocateGivesTheEstimatorsPositionForTheHeardScan) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the device's own estimate is tried only in the first 100 ms of each "
                    "second of the run, which a sanitized build under emulation misses";
#endif
    // The configured access points, placed about 40 m apart around 46.01 N 8.95 E.
    const char* directory = std::getenv("ZEL_VM_CONFIG");
    std::ifstream file(std::string(directory ? directory : "/etc/zel-vm") + "/aps");
    std::vector<Tiles::AccessPointPosition> positions;
    Core::ApList scan;
    std::string line, interface, bssid, ssid;
    int channel = 0, rss = 0;
    while (std::getline(file, line)) {
        if (std::istringstream(line) >> interface >> bssid >> ssid >> channel >> rss) {
            const double i = static_cast<double>(positions.size());
            positions.push_back({Core::parseMacText(bssid).value(), 46.01 + 0.0003 * i,
                                 8.95 + 0.0004 * static_cast<double>(positions.size() % 2), 30});
            Core::ScannedAP heard;
            heard.mac = positions.back().mac;
            heard.rss = static_cast<int16_t>(rss);
            scan.push_back(heard);
        }
    }
    ASSERT_GE(positions.size(), 3u);
    const std::string database = "/tmp/vm-aps.zel";
    auto written = Tiles::TileWriter::writeFile(database, positions, "");
    ASSERT_TRUE(written.ok) << written.error;
    chmod(database.c_str(), 0644);

    // What the estimator makes of that scan, on a first call with no history.
    Local::resetLocationHistoriesForTesting();
    Local::LocationDeterminationPrivate local;
    local.setLocalFilesPath({database});
    local.prepare("");
    Core::LocationRecord expected;
    ASSERT_EQ(local.determine(nullptr, scan, expected), Core::ResultCode::kOk);
    local.release();

    // As an unprivileged user, which cannot trigger a scan and reads the kernel's
    // cached results at once (root's scans of the earlier tests filled them).
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    if (fork() == 0) {
        dup2(pipeFds[1], 1);
        if (setgid(65534) == 0 && setuid(65534) == 0) {
            execl("/bin/zel", "zel", "locate", "--db", database.c_str(), "--json", nullptr);
        }
        _exit(127);
    }
    ::close(pipeFds[1]);
    std::string output;
    char buffer[4096];
    for (ssize_t got; (got = read(pipeFds[0], buffer, sizeof buffer)) > 0;) {
        output.append(buffer, static_cast<size_t>(got));
    }
    ::close(pipeFds[0]);
    wait(nullptr);
    nlohmann::json fix = nlohmann::json::parse(output, nullptr, false);
    ASSERT_FALSE(fix.is_discarded()) << output;
    EXPECT_EQ(fix["code"], 0);
    EXPECT_EQ(fix["nap"], expected.nap);
    EXPECT_DOUBLE_EQ(fix["latitude"].get<double>(), expected.latitude);
    EXPECT_DOUBLE_EQ(fix["longitude"].get<double>(), expected.longitude);
    EXPECT_DOUBLE_EQ(fix["hpe"].get<double>(), expected.hpe);
    EXPECT_EQ(fix["known_aps"].size(), positions.size());
}

}  // namespace
}  // namespace ZEL::API

// Latency of one on-device determination: a 30-AP scan (24 in the database, 6 not)
// against a tile file of 1,000,000 APs in a hashed realm. Target: at most 50 us.
// The anchor, in the same run, is the database lookup of the same 30 APs alone.
//
// Run: build/bin/determine_latency_bench
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "local/location_determination_private.h"
#include "local/location_history.h"
#include "local/sim/simulated_city.h"
#include "spi/log.h"
#include "spi/time/manual_clock.h"
#include "tiles/tile_writer.h"

namespace {

using namespace ZEL;

constexpr size_t kDatabaseAps = 1'000'000;
constexpr const char* kRealm = "bench";

struct Fixture {
    std::string path;
    std::string plainPath;  // the same APs in the empty realm (plain keys)
    ApList scan;            // 24 known APs near one spot, 6 unknown, interleaved
};

const Fixture& fixture() {
    static const Fixture built = [] {
        Fixture f;
        const auto city = Sim::generateCity({77, kDatabaseAps, 20.0});
        std::vector<API::AccessPointPosition> positions;
        positions.reserve(city.size());
        for (const Sim::CityAp& ap : city) {
            positions.push_back({ap.mac, ap.latitude, ap.longitude, ap.quality, ap.signalExponent});
        }
        f.path = (std::filesystem::temp_directory_path() /
                  ("zel-latency-" + std::to_string(::getpid()) + ".zel"))
                     .string();
        f.plainPath = f.path + ".plain";
        const auto result = API::TileWriter::writeFile(f.path, positions, kRealm);
        const auto plain = API::TileWriter::writeFile(f.plainPath, positions, "");
        if (!result.ok || !plain.ok) {
            std::fprintf(stderr, "tile file: %s\n", result.error.c_str());
            std::abort();
        }
        // The 24 APs nearest to a point in the city, as a scan there would hear them.
        const double north = 1234.0;
        const double east = -567.0;
        std::vector<std::pair<double, size_t>> byDistance;
        for (size_t i = 0; i < city.size(); ++i) {
            byDistance.emplace_back(std::hypot(Sim::LocalFrame::north(city[i].latitude) - north,
                                               Sim::LocalFrame::east(city[i].longitude) - east),
                                    i);
        }
        std::partial_sort(byDistance.begin(), byDistance.begin() + 24, byDistance.end());
        for (int i = 0; i < 30; ++i) {
            ScannedAP ap;
            if (i % 5 == 4) {
                ap.mac = {static_cast<uint8_t>(i), 0xEE, 0xEE, 0xEE, 0xEE, 0x0A};  // unknown
            } else {
                ap.mac = city[byDistance[static_cast<size_t>(i - i / 5)].second].mac;
            }
            ap.rss = static_cast<int16_t>(-55 - i);
            f.scan.push_back(ap);
        }
        return f;
    }();
    return built;
}

// Argument 0: the hashed realm; 1: the same APs with plain keys.
void BM_Determine30Aps(benchmark::State& state) {
    const Fixture& f = fixture();
    const bool plain = state.range(0) == 1;
    // Debug lines off, as in a deployment.
    SPI::getCategory("ZEL.API.LocationDeterminationPrivate").setPriority(log4cpp::Priority::INFO);
    API::resetLocationHistoriesForTesting();
    SPI::ManualClock clock;
    SPI::ScopedClock scoped(clock);
    API::LocationDeterminationPrivate determination;
    const char* paths[] = {plain ? f.plainPath.c_str() : f.path.c_str(), nullptr};
    determination.setLocalFilesPath(paths);
    determination.prepare(ZEL_Authentication{nullptr, plain ? "" : kRealm});
    if (determination.openReaderCount() != 1) {
        state.SkipWithError("tile file did not open");
        return;
    }
    ApList scan = f.scan;
    int failures = 0;
    for (auto _ : state) {
        clock.advance(1000);  // one scan a second: the histories fill as on a device
        API::LocationRecord record;
        failures += determination.determine(nullptr, scan, record) != 0;
        benchmark::DoNotOptimize(record.latitude);
    }
    state.counters["failures"] = failures;
}

// The anchor: the lookups alone, of all 30 APs (argument 0), of the 24 known ones
// (1) or of the 6 unknown ones (2).
void BM_Lookup30Aps(benchmark::State& state) {
    const Fixture& f = fixture();
    ApList scan;
    for (size_t i = 0; i < f.scan.size(); ++i) {
        const bool unknown = i % 5 == 4;
        if (state.range(0) == 0 || (state.range(0) == 1) != unknown) {
            scan.push_back(f.scan[i]);
        }
    }
    auto reader = API::LocalCompressedFileReader::create();
    if (!reader->open(f.path, kRealm)) {
        state.SkipWithError("tile file did not open");
        return;
    }
    API::ReaderList readers;
    readers.push_back(std::move(reader));
    auto& log = SPI::getCategory("ZEL.API.LocationDeterminationPrivate");
    log.setPriority(log4cpp::Priority::INFO);
    size_t found = 0;
    for (auto _ : state) {
        const auto known = API::lookupStoredAps(readers, scan, log);
        found = known.size();
        benchmark::DoNotOptimize(found);
    }
    state.counters["known"] = static_cast<double>(found);
}

BENCHMARK(BM_Lookup30Aps)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Determine30Aps)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove(fixture().path);
    std::filesystem::remove(fixture().plainPath);
    return 0;
}

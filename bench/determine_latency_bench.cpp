// Latency of one on-device determination: a 30-AP scan (24 in the database, 6 not)
// against a tile file of 1,000,000 APs in a hashed realm. Target: at most 50 us.
// Measured for a scan repeated once a second (the usual case: the reader's recently
// found tiles hold the scan's APs) and for the first scan after a move.
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
#include "sim/simulated_city.h"
#include "spi/log.h"
#include "spi/manual_clock.h"
#include "tiles/tile_writer.h"

namespace {

using namespace ZEL;

constexpr size_t kDatabaseAps = 1'000'000;
constexpr const char* kRealm = "bench";

struct Fixture {
    std::string path;
    std::string plainPath;                // the same APs in the empty realm (plain keys)
    Core::ApList scan;                    // 24 known APs near one spot, 6 unknown, interleaved
    std::vector<Core::ApList> elsewhere;  // the same at 16 spots far apart
};

// The 24 APs nearest to a point (metres north and east of the city's centre), as a
// scan there would hear them, interleaved with 6 unknown ones.
Core::ApList scanAt(const std::vector<Sim::CityAp>& city, double north, double east, int tag) {
    std::vector<std::pair<double, size_t>> byDistance;
    byDistance.reserve(city.size());
    for (size_t i = 0; i < city.size(); ++i) {
        byDistance.emplace_back(std::hypot(Sim::LocalFrame::north(city[i].latitude) - north,
                                           Sim::LocalFrame::east(city[i].longitude) - east),
                                i);
    }
    std::partial_sort(byDistance.begin(), byDistance.begin() + 24, byDistance.end());
    Core::ApList scan;
    for (int i = 0; i < 30; ++i) {
        Core::ScannedAP ap;
        if (i % 5 == 4) {
            ap.mac = {static_cast<uint8_t>(i), static_cast<uint8_t>(tag), 0xEE, 0xEE, 0xEE, 0x0A};
        } else {
            ap.mac = city[byDistance[static_cast<size_t>(i - i / 5)].second].mac;
        }
        ap.rss = static_cast<int16_t>(-55 - i);
        scan.push_back(ap);
    }
    return scan;
}

const Fixture& fixture() {
    static const Fixture built = [] {
        Fixture f;
        const auto city = Sim::generateCity({77, kDatabaseAps, 20.0});
        std::vector<Tiles::AccessPointPosition> positions;
        positions.reserve(city.size());
        for (const Sim::CityAp& ap : city) {
            positions.push_back({ap.mac, ap.latitude, ap.longitude, ap.quality, ap.signalExponent});
        }
        f.path = (std::filesystem::temp_directory_path() /
                  ("zel-latency-" + std::to_string(::getpid()) + ".zel"))
                     .string();
        f.plainPath = f.path + ".plain";
        const auto result = Tiles::TileWriter::writeFile(f.path, positions, kRealm);
        const auto plain = Tiles::TileWriter::writeFile(f.plainPath, positions, "");
        if (!result.ok || !plain.ok) {
            std::fprintf(stderr, "tile file: %s\n", result.error.c_str());
            std::abort();
        }
        f.scan = scanAt(city, 1234.0, -567.0, 0);
        // Spots a few kilometres apart: each scan's APs lie in tiles no recent scan used.
        for (int spot = 0; spot < 16; ++spot) {
            f.elsewhere.push_back(scanAt(city, -8000.0 + 1000.0 * spot,
                                         (spot % 2 ? 5000.0 : -5000.0) + 300.0 * spot, spot));
        }
        return f;
    }();
    return built;
}

// Argument 0: the hashed realm; 1: the same APs with plain keys; 2: the hashed realm,
// each call at another spot a minute later, so that the tiles found for the last
// scans do not hold this one's APs (the first scan after a move).
void BM_Determine30Aps(benchmark::State& state) {
    const Fixture& f = fixture();
    const bool plain = state.range(0) == 1;
    const bool moving = state.range(0) == 2;
    // Debug lines off, as in a deployment.
    SPI::getLogger("ZEL.API.LocationDeterminationPrivate").setPriority(SPI::LogPriority::kInfo);
    Local::resetLocationHistoriesForTesting();
    SPI::ManualClock clock;
    SPI::ScopedClock scoped(clock);
    Local::LocationDeterminationPrivate determination;
    determination.setLocalFilesPath({plain ? f.plainPath : f.path});
    determination.prepare(plain ? "" : kRealm);
    if (determination.openReaderCount() != 1) {
        state.SkipWithError("tile file did not open");
        return;
    }
    Core::ApList scan = f.scan;
    int failures = 0;
    size_t spot = 0;
    for (auto _ : state) {
        if (moving) {
            state.PauseTiming();
            scan = f.elsewhere[spot++ % f.elsewhere.size()];
            state.ResumeTiming();
        }
        // One scan a second, the histories filling as on a device; a minute between moves.
        clock.advance(moving ? 60'000 : 1000);
        Core::LocationRecord record;
        failures += determination.determine(nullptr, scan, record) != Core::ResultCode::kOk;
        benchmark::DoNotOptimize(record.latitude);
    }
    state.counters["failures"] = failures;
}

// The anchor: the lookups alone, of all 30 APs (argument 0), of the 24 known ones
// (1) or of the 6 unknown ones (2).
void BM_Lookup30Aps(benchmark::State& state) {
    const Fixture& f = fixture();
    Core::ApList scan;
    for (size_t i = 0; i < f.scan.size(); ++i) {
        const bool unknown = i % 5 == 4;
        if (state.range(0) == 0 || (state.range(0) == 1) != unknown) {
            scan.push_back(f.scan[i]);
        }
    }
    auto reader = Tiles::LocalCompressedFileReader::create();
    if (!reader->open(f.path, kRealm)) {
        state.SkipWithError("tile file did not open");
        return;
    }
    Local::ReaderList readers;
    readers.push_back(std::move(reader));
    auto& log = SPI::getLogger("ZEL.API.LocationDeterminationPrivate");
    log.setPriority(SPI::LogPriority::kInfo);
    size_t found = 0;
    for (auto _ : state) {
        const auto known = Local::lookupStoredAps(readers, scan, log);
        found = known.size();
        benchmark::DoNotOptimize(found);
    }
    state.counters["known"] = static_cast<double>(found);
}

BENCHMARK(BM_Lookup30Aps)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Determine30Aps)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove(fixture().path);
    std::filesystem::remove(fixture().plainPath);
    return 0;
}

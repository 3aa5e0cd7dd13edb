// Accuracy of the on-device determination on simulated walks through a dense city:
// error against the true track (median, 90th percentile, maximum), the share of
// scans with a fix and how often the truth lies within the reported HPE. The
// anchor, in the same run, is the plain centroid of the known APs of each scan.
//
// Run: build/bin/local_accuracy_bench
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>

#include "local/location_determination_private.h"
#include "local/location_history.h"
#include "local/position_estimate.h"
#include "sim/accuracy.h"
#include "sim/simulated_walk.h"
#include "spi/manual_clock.h"
#include "tiles/tile_writer.h"

namespace {

using namespace ZEL;

// 24,000 APs in a 2 km square (6,000 per km2), a 25-minute walk and drive.
constexpr size_t kCityAps = 24000;
constexpr double kCityKm = 2.0;
constexpr double kMinutes = 25.0;

struct World {
    std::vector<Sim::CityAp> city;
    std::string tilePath;
};

const World& world() {
    static const World built = [] {
        World w;
        w.city = Sim::generateCity({2024, kCityAps, kCityKm});
        w.tilePath = (std::filesystem::temp_directory_path() /
                      ("zel-accuracy-" + std::to_string(::getpid()) + ".zel"))
                         .string();
        std::vector<Tiles::AccessPointPosition> positions;
        for (const Sim::CityAp& ap : w.city) {
            positions.push_back({ap.mac, ap.latitude, ap.longitude, ap.quality, ap.signalExponent});
        }
        const auto result = Tiles::TileWriter::writeFile(w.tilePath, positions, "");
        if (!result.ok) {
            std::fprintf(stderr, "tile file: %s\n", result.error.c_str());
            std::abort();
        }
        return w;
    }();
    return built;
}

Sim::SimulatedWalk walkAt(double speedKmh) {
    Sim::WalkOptions options;
    options.seed = 99;
    options.minutes = kMinutes;
    options.speedKmh = speedKmh;
    options.periodMs = 1000;
    return Sim::generateWalk(world().city, options);
}

void report(benchmark::State& state, const Sim::AccuracySummary& summary) {
    state.counters["scans"] = static_cast<double>(summary.scans);
    state.counters["fix_share"] = summary.fixShare();
    state.counters["median_m"] = summary.medianErrorMetres;
    state.counters["p90_m"] = summary.p90ErrorMetres;
    state.counters["max_m"] = summary.maxErrorMetres;
    state.counters["within_hpe"] = summary.withinHpeShare();
}

void BM_DetermineAccuracy(benchmark::State& state) {
    const Sim::SimulatedWalk walk = walkAt(static_cast<double>(state.range(0)));
    Sim::AccuracySummary summary;
    for (auto _ : state) {
        Local::resetLocationHistoriesForTesting();
        SPI::ManualClock clock;
        SPI::ScopedClock scoped(clock);
        Local::LocationDeterminationPrivate determination;
        determination.setLocalFilesPath({world().tilePath});
        determination.prepare("");
        Sim::AccuracyTally tally;
        for (size_t i = 0; i < walk.scans.size(); ++i) {
            clock.set(walk.scans[i].timeMs);
            Core::LocationRecord record;
            if (determination.determine(nullptr, walk.scans[i].aps, record) !=
                Core::ResultCode::kOk) {
                tally.addMiss();
                continue;
            }
            tally.addFix(
                Local::greatCircleDistance(record.latitude, record.longitude,
                                           walk.truth[i].latitude, walk.truth[i].longitude),
                record.hpe);
        }
        summary = tally.summary();
    }
    report(state, summary);
}

// The anchor: the unweighted centroid of every known AP heard, no gate, no history.
void BM_CentroidAccuracy(benchmark::State& state) {
    const Sim::SimulatedWalk walk = walkAt(static_cast<double>(state.range(0)));
    Sim::AccuracySummary summary;
    for (auto _ : state) {
        auto reader = Tiles::LocalCompressedFileReader::create();
        reader->open(world().tilePath, "");
        Sim::AccuracyTally tally;
        for (size_t i = 0; i < walk.scans.size(); ++i) {
            double latitude = 0.0;
            double longitude = 0.0;
            int known = 0;
            for (const Core::ScannedAP& ap : walk.scans[i].aps) {
                if (std::optional<Tiles::StoredApData> found = reader->lookup(ap.mac)) {
                    latitude += found->latitude;
                    longitude += found->longitude;
                    ++known;
                }
            }
            if (known == 0) {
                tally.addMiss();
                continue;
            }
            tally.addFix(
                Local::greatCircleDistance(latitude / known, longitude / known,
                                           walk.truth[i].latitude, walk.truth[i].longitude),
                0.0);
        }
        summary = tally.summary();
    }
    report(state, summary);
}

// Argument: speed in km/h (a walk and a drive).
BENCHMARK(BM_DetermineAccuracy)->Arg(5)->Arg(30)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CentroidAccuracy)->Arg(5)->Arg(30)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove(world().tilePath);
    return 0;
}

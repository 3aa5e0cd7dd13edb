// zel sim city | walk: a synthetic city of access points and recorded walks through it.
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "command.h"
#include "local/scan_recording.h"
#include "sim/simulated_city.h"
#include "sim/simulated_walk.h"
#include "tiles/tile_writer.h"

namespace {

using namespace ZEL;

struct CityArguments {
    Sim::CityOptions options;
    std::string output;
    std::string tiles;
    std::string realm;
};

struct WalkArguments {
    Sim::WalkOptions options;
    std::string city;
    std::string output;
    std::string truth;
    bool withPositions = false;
};

int writeCity(const CityArguments& arguments) {
    std::ofstream out(arguments.output);
    if (!out) {
        std::fprintf(stderr, "zel sim city: cannot write %s\n", arguments.output.c_str());
        return 1;
    }
    const auto city = Sim::generateCity(arguments.options);
    Sim::writeCityCsv(out, city);
    if (!out.flush()) {
        std::fprintf(stderr, "zel sim city: writing %s failed\n", arguments.output.c_str());
        return 1;
    }
    std::printf("%zu access points written to %s\n", city.size(), arguments.output.c_str());
    if (arguments.tiles.empty()) {
        return 0;
    }
    std::vector<Tiles::AccessPointPosition> positions;
    positions.reserve(city.size());
    for (const Sim::CityAp& ap : city) {
        positions.push_back({ap.mac, ap.latitude, ap.longitude, ap.quality, ap.signalExponent});
    }
    const Tiles::TileWriteResult result =
        Tiles::TileWriter::writeFile(arguments.tiles, positions, arguments.realm);
    if (!result.ok) {
        std::fprintf(stderr, "zel sim city: %s: %s\n", arguments.tiles.c_str(),
                     result.error.c_str());
        return 1;
    }
    std::printf("%zu access points in %zu tiles (%llu bytes) written to %s for realm \"%s\"\n",
                result.accessPoints, result.tiles,
                static_cast<unsigned long long>(result.fileBytes), arguments.tiles.c_str(),
                arguments.realm.c_str());
    return 0;
}

int writeWalk(const WalkArguments& arguments) {
    std::ifstream in(arguments.city);
    if (!in) {
        std::fprintf(stderr, "zel sim walk: cannot read %s\n", arguments.city.c_str());
        return 1;
    }
    std::vector<std::string> errors;
    const auto city = Sim::readCityCsv(in, errors);
    for (const std::string& error : errors) {
        std::fprintf(stderr, "%s: %s (skipped)\n", arguments.city.c_str(), error.c_str());
    }
    const Sim::SimulatedWalk walk = Sim::generateWalk(city, arguments.options);
    if (!walk.error.empty()) {
        std::fprintf(stderr, "zel sim walk: %s\n", walk.error.c_str());
        return 1;
    }
    std::ofstream scans(arguments.output);
    std::ofstream truth(arguments.truth);
    if (!scans || !truth) {
        std::fprintf(stderr, "zel sim walk: cannot write %s or %s\n", arguments.output.c_str(),
                     arguments.truth.c_str());
        return 1;
    }
    for (size_t i = 0; i < walk.scans.size(); ++i) {
        Local::RecordedScan scan = walk.scans[i];
        if (arguments.withPositions) {
            scan.position = {walk.truth[i].latitude, walk.truth[i].longitude, 0.0};
        }
        scans << Local::formatRecordedScan(scan) << '\n';
    }
    Sim::writeTruthCsv(truth, walk.truth);
    if (!scans.flush() || !truth.flush()) {
        std::fprintf(stderr, "zel sim walk: writing failed\n");
        return 1;
    }
    std::printf("%zu scans written to %s, truth to %s\n", walk.scans.size(),
                arguments.output.c_str(), arguments.truth.c_str());
    return 0;
}

void addCity(CLI::App& sim) {
    auto arguments = std::make_shared<CityArguments>();
    CLI::App* city = sim.add_subcommand(
        "city", "Generate access points in buildings along a street grid (CSV for tiles build)");
    city->add_option("--seed", arguments->options.seed, "Random seed")->default_val(1);
    city->add_option("--aps", arguments->options.aps, "Number of access points")
        ->required()
        ->check(CLI::Range(1, 10'000'000));
    city->add_option("--size-km", arguments->options.sizeKm, "Side of the square city, km")
        ->default_val(2.0)
        ->check(CLI::Range(0.2, 50.0));
    city->add_option("-o,--output", arguments->output, "CSV file to write")->required();
    city->add_option("--tiles", arguments->tiles, "Also write the city as a tile file");
    city->add_option("--realm", arguments->realm, "Realm of that tile file")->default_val("");
    city->callback([arguments] { ZEL::Cli::setExitStatus(writeCity(*arguments)); });
}

void addWalk(CLI::App& sim) {
    auto arguments = std::make_shared<WalkArguments>();
    CLI::App* walk = sim.add_subcommand(
        "walk", "Simulate a walk or drive through a city: recorded scans and the true track");
    walk->add_option("--city", arguments->city, "City CSV (from zel sim city)")->required();
    walk->add_option("--seed", arguments->options.seed, "Random seed")->default_val(1);
    walk->add_option("--minutes", arguments->options.minutes, "Duration")
        ->default_val(5.0)
        ->check(CLI::Range(0.01, 24.0 * 60.0));
    walk->add_option("--speed-kmh", arguments->options.speedKmh, "Typical speed")
        ->default_val(5.0)
        ->check(CLI::Range(0.5, 150.0));
    walk->add_option("--period-ms", arguments->options.periodMs, "Time between scans")
        ->default_val(1000)
        ->check(CLI::Range(100, 600000));
    walk->add_option("--start-ms", arguments->options.startMs,
                     "Time of the first scan, ms since the epoch")
        ->default_val(1'750'000'000'000ull);
    walk->add_option("-o,--output", arguments->output, "Recording to write (JSON Lines)")
        ->required();
    walk->add_option("--truth", arguments->truth, "True positions to write (CSV)")->required();
    walk->add_flag("--with-positions", arguments->withPositions,
                   "Also write each scan's true position into the recording (for zel learn)");
    walk->callback([arguments] { ZEL::Cli::setExitStatus(writeWalk(*arguments)); });
}

}  // namespace

namespace ZEL::Cli {

void addSimCommand(CLI::App& app) {
    CLI::App* sim = app.add_subcommand("sim", "Simulated cities and walks for demos and tests");
    sim->require_subcommand(1);
    addCity(*sim);
    addWalk(*sim);
}

}  // namespace ZEL::Cli

// zel tiles build --realm R -o OUT IN.csv [--precision P] [--block-records N]
#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "command.h"
#include "tiles/ap_csv.h"
#include "tiles/tile_writer.h"
#include "tiles_commands.h"

namespace ZEL::Cli {
namespace {

struct BuildArguments {
    std::string realm;
    std::string output;
    std::string input;
    Tiles::TileWriterOptions options;
    bool json = false;
};

int build(const BuildArguments& arguments) {
    std::ifstream in(arguments.input, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "zel tiles build: can't read %s\n", arguments.input.c_str());
        return 1;
    }
    std::stringstream text;
    text << in.rdbuf();
    Tiles::ApCsvResult csv = Tiles::parseAccessPointCsv(text.str());
    if (!csv.error.empty()) {
        std::fprintf(stderr, "%s: %s\n", arguments.input.c_str(), csv.error.c_str());
        return 1;
    }
    for (const Tiles::CsvIssue& issue : csv.issues) {
        std::fprintf(stderr, "%s:%zu: %s (line skipped)\n", arguments.input.c_str(), issue.line,
                     issue.message.c_str());
    }
    Tiles::TileWriteResult result = Tiles::TileWriter::writeFile(
        arguments.output, csv.accessPoints, arguments.realm, arguments.options);
    if (!result.ok) {
        std::fprintf(stderr, "zel tiles build: %s\n", result.error.c_str());
        return 1;
    }
    double perAp = static_cast<double>(result.fileBytes) / static_cast<double>(result.accessPoints);
    if (arguments.json) {
        nlohmann::json line = {{"output", arguments.output},
                               {"realm", arguments.realm},
                               {"access_points", result.accessPoints},
                               {"tiles", result.tiles},
                               {"bytes", result.fileBytes},
                               {"bytes_per_ap", perAp},
                               {"dropped_duplicates", result.droppedDuplicates},
                               {"skipped_lines", csv.issues.size()}};
        std::printf("%s\n", line.dump().c_str());
    } else {
        std::printf("wrote %s: %zu APs in %zu tiles, %llu bytes (%.2f bytes per AP)",
                    arguments.output.c_str(), result.accessPoints, result.tiles,
                    static_cast<unsigned long long>(result.fileBytes), perAp);
        std::printf("; %zu duplicates dropped, %zu lines skipped\n", result.droppedDuplicates,
                    csv.issues.size());
    }
    return 0;
}

}  // namespace

void addBuild(CLI::App& tiles) {
    auto arguments = std::make_shared<BuildArguments>();
    CLI::App* command =
        tiles.add_subcommand("build",
                             "Write a tile file from a CSV of access points (mac,latitude,longitude"
                             "[,quality,signal_exponent]) or a WiGLE CSV export");
    command->add_option("input", arguments->input, "CSV file")->required();
    command->add_option("-o,--output", arguments->output, "tile file to write")->required();
    command->add_option("--realm", arguments->realm, "realm name (empty: plain MAC keys)");
    command
        ->add_option("--precision", arguments->options.precision,
                     "coordinate unit 2^-(P+11) degree, 1..7")
        ->capture_default_str();
    command
        ->add_option("--block-records", arguments->options.blockRecords,
                     "records per block, 1..496")
        ->capture_default_str();
    command->add_option("--tile-records", arguments->options.tileRecords, "records per tile")
        ->capture_default_str();
    command
        ->add_option("--cell-degrees", arguments->options.cellDegrees,
                     "side of a geographic cell (hashed realms)")
        ->capture_default_str();
    command->add_flag("--json", arguments->json, "print one JSON object");
    command->callback([arguments] { setExitStatus(build(*arguments)); });
}

}  // namespace ZEL::Cli

// zel tiles build / zel learn: tile files from access-point positions and
// observations in any of the formats of learn/observation_readers.h, several inputs
// at once. Positions given as such come first (of a MAC given twice the first
// counts); every other MAC is learned from its observations (learn/learning.h).
// zel learn --database: incrementally, from the observations a server's database
// holds (server/database.h), the same run as zel-server --learn-every.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "command.h"
#include "learn/learning.h"
#include "learn/observation_readers.h"
#include "tiles/tile_writer.h"
#include "tiles_commands.h"
#ifndef _WIN32
#include "server/database.h"
#endif

namespace ZEL::Cli {
namespace {

struct BuildArguments {
    const char* name = "zel tiles build";
    std::string realm;
    std::string output;
    std::vector<std::string> inputs;
    std::string columns;
    Tiles::TileWriterOptions options;
    bool json = false;
    std::string database;  // zel learn only
    bool full = false;
};

struct Tally {
    size_t observations = 0, skippedLines = 0, filtered = 0, placed = 0, moved = 0, moving = 0,
           fitted = 0;
};

// Reads every input into `learner` and `positions`; false on an unusable input.
bool readInputs(const BuildArguments& arguments, Learn::Learner& learner,
                std::vector<Tiles::AccessPointPosition>& positions, Tally& tally) {
    std::optional<Learn::ColumnMapping> columns;
    if (!arguments.columns.empty()) {
        std::string error;
        columns = Learn::parseColumnMapping(arguments.columns, error);
        if (!columns) {
            std::fprintf(stderr, "%s: --columns: %s\n", arguments.name, error.c_str());
            return false;
        }
    }
    const bool progress = isatty(STDERR_FILENO) != 0;
    for (const std::string& path : arguments.inputs) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream text;
        if (!(in && text << in.rdbuf())) {
            std::fprintf(stderr, "%s: can't read %s\n", arguments.name, path.c_str());
            return false;
        }
        Learn::ReadResult read = Learn::readAny(text.str(), columns ? &*columns : nullptr);
        if (!read.error.empty()) {
            std::fprintf(stderr, "%s: %s\n", path.c_str(), read.error.c_str());
            return false;
        }
        for (const Tiles::CsvIssue& issue : read.issues) {
            std::fprintf(stderr, "%s:%zu: %s (skipped)\n", path.c_str(), issue.line,
                         issue.message.c_str());
        }
        for (const Learn::Observation& observation : read.observations) {
            learner.add(observation);
        }
        positions.insert(positions.end(), read.positions.begin(), read.positions.end());
        tally.observations += read.observations.size();
        tally.skippedLines += read.issues.size();
        tally.filtered += read.filtered;
        if (progress) {
            std::fprintf(stderr, "%s: %zu observations, %zu positions\n", path.c_str(),
                         read.observations.size(), read.positions.size());
        }
    }
    return true;
}

void addLearned(const Learn::Learner& learner, std::vector<Tiles::AccessPointPosition>& positions,
                Tally& tally) {
    for (const auto& [mac, learned] : learner.learnAll()) {
        if (learned.verdict == Learn::Verdict::Moving) {
            ++tally.moving;
            continue;
        }
        ++(learned.verdict == Learn::Verdict::Moved ? tally.moved : tally.placed);
        tally.fitted += learned.exponentFitted ? 1 : 0;
        positions.push_back(learned.position);
    }
}

#ifndef _WIN32
int learnFromDatabase(const BuildArguments& arguments) {
    std::string error;
    std::unique_ptr<Server::Database> database = Server::Database::open(arguments.database, error);
    std::function<void(const std::string&)> progress;
    if (isatty(STDERR_FILENO)) {
        progress = [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); };
    }
    std::optional<Server::LearnedFile> learned;
    if (database) {
        learned = Server::learnTileFile(*database, arguments.realm, arguments.output,
                                        arguments.full, false, progress, error);
    }
    if (!learned || !learned->replaced) {
        std::fprintf(stderr, "%s: %s\n", arguments.name,
                     learned ? learned->written.error.c_str() : error.c_str());
        return 1;
    }
    const Server::LearningTally& tally = learned->tally;
    if (arguments.json) {
        nlohmann::json line = {{"output", arguments.output},
                               {"realm", arguments.realm},
                               {"access_points", learned->written.accessPoints},
                               {"bytes", learned->written.fileBytes},
                               {"observations", tally.observations},
                               {"relearned", tally.accessPoints},
                               {"placed", tally.placed},
                               {"moved", tally.moved},
                               {"left_out_moving", tally.moving},
                               {"exponents_fitted", tally.fitted}};
        std::printf("%s\n", line.dump().c_str());
    } else {
        std::printf(
            "folded in %llu new observations, learned %llu APs again (%llu moved, %llu "
            "left out as moving, %llu exponents fitted); wrote %s: %zu APs\n",
            static_cast<unsigned long long>(tally.observations),
            static_cast<unsigned long long>(tally.accessPoints),
            static_cast<unsigned long long>(tally.moved),
            static_cast<unsigned long long>(tally.moving),
            static_cast<unsigned long long>(tally.fitted), arguments.output.c_str(),
            learned->written.accessPoints);
    }
    return 0;
}
#endif

int build(const BuildArguments& arguments) {
    if (!arguments.database.empty() || arguments.inputs.empty()) {
#ifndef _WIN32
        if (!arguments.database.empty() && arguments.inputs.empty()) {
            return learnFromDatabase(arguments);
        }
#endif
        std::fprintf(stderr, "%s: give input files%s\n", arguments.name,
                     arguments.database.empty() ? "" : " or --database, not both");
        return 1;
    }
    Learn::Learner learner;
    std::vector<Tiles::AccessPointPosition> positions;
    Tally tally;
    if (!readInputs(arguments, learner, positions, tally)) {
        return 1;
    }
    addLearned(learner, positions, tally);
    Tiles::TileWriteResult result = Tiles::TileWriter::writeFile(
        arguments.output, positions, arguments.realm, arguments.options);
    if (!result.ok) {
        std::fprintf(stderr, "%s: %s\n", arguments.name, result.error.c_str());
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
                               {"skipped_lines", tally.skippedLines},
                               {"observations", tally.observations},
                               {"filtered", tally.filtered},
                               {"learned", tally.placed + tally.moved},
                               {"moved", tally.moved},
                               {"left_out_moving", tally.moving},
                               {"exponents_fitted", tally.fitted}};
        std::printf("%s\n", line.dump().c_str());
    } else {
        std::printf("wrote %s: %zu APs in %zu tiles, %llu bytes (%.2f bytes per AP)",
                    arguments.output.c_str(), result.accessPoints, result.tiles,
                    static_cast<unsigned long long>(result.fileBytes), perAp);
        std::printf("; %zu duplicates dropped, %zu lines skipped\n", result.droppedDuplicates,
                    tally.skippedLines);
        if (tally.observations > 0) {
            std::printf(
                "learned %zu APs from %zu observations (%zu moved, %zu left out as moving, "
                "%zu exponents fitted); %zu observations filtered at intake\n",
                tally.placed + tally.moved, tally.observations, tally.moved, tally.moving,
                tally.fitted, tally.filtered);
        }
    }
    return 0;
}

void addOptions(CLI::App* command, const std::shared_ptr<BuildArguments>& arguments) {
    command->add_option("input", arguments->inputs, "input files (the form is recognised)");
    command->add_option("-o,--output", arguments->output, "tile file to write")->required();
    command->add_option("--realm", arguments->realm, "realm name (empty: plain MAC keys)");
    command->add_option("--columns", arguments->columns,
                        "CSV column names: mac=..,latitude=..,longitude=..[,rss=..,time=..,"
                        "accuracy=..,ssid=..]; without rss the rows are AP positions");
    command->add_flag("--json", arguments->json, "print one JSON object");
    command->callback([arguments] { setExitStatus(build(*arguments)); });
}

}  // namespace

void addBuild(CLI::App& tiles) {
    auto arguments = std::make_shared<BuildArguments>();
    CLI::App* command = tiles.add_subcommand(
        "build",
        "Write a tile file from CSVs of access points (mac,latitude,longitude"
        "[,quality,signal_exponent]), learning the rest from observations (WiGLE exports, "
        "geosubmit JSON, recordings with positions, --columns CSV)");
    addOptions(command, arguments);
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
}

void addLearnCommand(CLI::App& app) {
    auto arguments = std::make_shared<BuildArguments>();
    arguments->name = "zel learn";
    CLI::App* command = app.add_subcommand(
        "learn",
        "Learn access-point positions, qualities and signal exponents from observations "
        "(WiGLE exports, geosubmit JSON, recordings with positions, --columns CSV) into a tile "
        "file");
    addOptions(command, arguments);
#ifndef _WIN32
    command->add_option("--database", arguments->database,
                        "learn incrementally from the observations reported to a server: "
                        "sqlite:PATH or postgresql://... (instead of input files)");
    command->add_flag("--full", arguments->full,
                      "with --database: forget what was learned and fold in every observation");
#endif
}

}  // namespace ZEL::Cli

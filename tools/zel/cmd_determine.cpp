// zel determine: replays recorded scans through the on-device determination, one
// call per line in one process, with the clock set to each line's time, so the
// histories carry over exactly as on a device.
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "local/location_determination_private.h"
#include "local/position_estimate.h"
#include "local/scan_recording.h"
#include "sim/accuracy.h"
#include "sim/simulated_walk.h"
#include "spi/manual_clock.h"

namespace {

using namespace ZEL;

struct Arguments {
    std::vector<std::string> databases;
    std::string realm;
    std::string scans;
    std::string truth;
    bool json = false;
    bool independent = false;
};

void printApList(const char* name, const Core::ApList& aps) {
    std::printf(",\"%s\":[", name);
    for (size_t i = 0; i < aps.size(); ++i) {
        std::printf("%s{\"mac\":\"%s\",\"rss\":%d}", i == 0 ? "" : ",",
                    Core::macText(aps[i].mac).c_str(), aps[i].rss);
    }
    std::printf("]");
}

void printResult(const Arguments& arguments, uint64_t timeMs, int code,
                 const Core::LocationRecord& record, const double* errorMetres) {
    const auto time = static_cast<unsigned long long>(timeMs);
    if (arguments.json) {
        std::printf(
            "{\"t_ms\":%llu,\"code\":%d,\"latitude\":%.17g,\"longitude\":%.17g,\"hpe\":%.17g,"
            "\"nap\":%u,\"speed\":%.17g,\"bearing\":%.17g",
            time, code, record.latitude, record.longitude, record.hpe, record.nap, record.speed,
            record.bearing);
        printApList("known_aps", record.knownAps);
        printApList("unknown_aps", record.unknownAps);
        if (errorMetres != nullptr) {
            std::printf(",\"error_m\":%.17g", *errorMetres);
        }
        std::printf("}\n");
        return;
    }
    if (code != 0) {
        std::printf("%llu  code %d  no position  (known %zu, unknown %zu)\n", time, code,
                    record.knownAps.size(), record.unknownAps.size());
        return;
    }
    std::printf(
        "%llu  %.7f %.7f  hpe %.1f m  nap %u  speed %.1f km/h  bearing %.1f  (known %zu, "
        "unknown %zu)",
        time, record.latitude, record.longitude, record.hpe, record.nap, record.speed,
        record.bearing, record.knownAps.size(), record.unknownAps.size());
    if (errorMetres != nullptr) {
        std::printf("  error %.1f m", *errorMetres);
    }
    std::printf("\n");
}

void printSummary(const Arguments& arguments, const Sim::AccuracySummary& summary) {
    if (arguments.json) {
        std::printf(
            "{\"summary\":{\"scans\":%zu,\"fixes\":%zu,\"median_error_m\":%.17g,"
            "\"p90_error_m\":%.17g,\"max_error_m\":%.17g,\"within_hpe_share\":%.17g}}\n",
            summary.scans, summary.fixes, summary.medianErrorMetres, summary.p90ErrorMetres,
            summary.maxErrorMetres, summary.withinHpeShare());
        return;
    }
    std::printf(
        "%zu scans, %zu fixes (%.1f%%); error median %.1f m, 90th percentile %.1f m, max %.1f m; "
        "truth within HPE %.1f%%\n",
        summary.scans, summary.fixes, 100.0 * summary.fixShare(), summary.medianErrorMetres,
        summary.p90ErrorMetres, summary.maxErrorMetres, 100.0 * summary.withinHpeShare());
}

std::map<uint64_t, Sim::TruthPoint> readTruth(const std::string& path, bool& ok) {
    std::map<uint64_t, Sim::TruthPoint> byTime;
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "zel determine: cannot read %s\n", path.c_str());
        ok = false;
        return byTime;
    }
    std::vector<std::string> errors;
    for (const Sim::TruthPoint& point : Sim::readTruthCsv(in, errors)) {
        byTime.emplace(point.timeMs, point);
    }
    for (const std::string& error : errors) {
        std::fprintf(stderr, "%s: %s (skipped)\n", path.c_str(), error.c_str());
    }
    return byTime;
}

// Opens each file once up front, only to name the ones that will not open.
size_t checkDatabases(const Arguments& arguments) {
    size_t usable = 0;
    for (const std::string& path : arguments.databases) {
        auto reader = Tiles::LocalCompressedFileReader::create();
        if (reader != nullptr && reader->open(path, arguments.realm)) {
            ++usable;
        } else {
            std::fprintf(stderr, "zel determine: cannot open tile file %s for realm \"%s\"\n",
                         path.c_str(), arguments.realm.c_str());
        }
    }
    return usable;
}

int run(const Arguments& arguments) {
    if (checkDatabases(arguments) == 0) {
        return 1;
    }
    std::ifstream in(arguments.scans);
    if (!in) {
        std::fprintf(stderr, "zel determine: cannot read %s\n", arguments.scans.c_str());
        return 1;
    }
    bool truthOk = true;
    const auto truth = arguments.truth.empty() ? std::map<uint64_t, Sim::TruthPoint>{}
                                               : readTruth(arguments.truth, truthOk);
    if (!truthOk) {
        return 1;
    }

    SPI::ManualClock clock;
    SPI::ScopedClock scopedClock(clock);
    auto determination = std::make_unique<Local::LocationDeterminationPrivate>();
    determination->setLocalFilesPath(arguments.databases);
    determination->prepare(arguments.realm);

    Sim::AccuracyTally tally;
    Local::ScanRecordingReader reader(in);
    while (auto item = reader.next()) {
        if (!item->scan) {
            std::fprintf(stderr, "%s:%zu: %s (skipped)\n", arguments.scans.c_str(), item->line,
                         item->error.c_str());
            continue;
        }
        clock.set(item->scan->timeMs);
        if (arguments.independent) {
            determination->release();
            determination = std::make_unique<Local::LocationDeterminationPrivate>();
            determination->setLocalFilesPath(arguments.databases);
            determination->prepare(arguments.realm);
        }
        Core::LocationRecord record;
        const int code = Core::toInt(determination->determine(nullptr, item->scan->aps, record));
        auto known = truth.find(item->scan->timeMs);
        double error = 0.0;
        if (known != truth.end()) {
            if (code == 0) {
                error = Local::greatCircleDistance(record.latitude, record.longitude,
                                                   known->second.latitude, known->second.longitude);
                tally.addFix(error, record.hpe);
            } else {
                tally.addMiss();
            }
        }
        printResult(arguments, item->scan->timeMs, code, record,
                    known != truth.end() && code == 0 ? &error : nullptr);
    }
    determination->release();
    if (!arguments.truth.empty()) {
        printSummary(arguments, tally.summary());
    }
    return 0;
}

}  // namespace

namespace ZEL::Cli {

void addDetermineCommand(CLI::App& app) {
    auto arguments = std::make_shared<Arguments>();
    CLI::App* command = app.add_subcommand(
        "determine", "Replay recorded scans through the on-device determination");
    command->add_option("--db", arguments->databases, "Tile file (repeat for several)")->required();
    command->add_option("--realm", arguments->realm, "Realm the tile files belong to")
        ->default_val("");
    command->add_option("--scans", arguments->scans, "Recording (JSON Lines)")->required();
    command->add_option("--truth", arguments->truth,
                        "True positions (CSV from zel sim walk): adds errors and a summary");
    command->add_flag("--json", arguments->json, "One JSON object per line");
    command->add_flag("--independent", arguments->independent,
                      "Locate each scan afresh, as a new process would: no history, no RSS "
                      "averaged over earlier scans");
    command->callback([arguments] { ZEL::Cli::setExitStatus(run(*arguments)); });
}

}  // namespace ZEL::Cli

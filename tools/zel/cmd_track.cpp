#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>

#include "command.h"
#include "location_output.h"
#include "replay_source.h"
#include "service_options.h"

namespace ZEL::Cli {
namespace {

struct TrackOptions : ServiceOptions {
    std::string replay;
    unsigned int periodMs = 1000;
    unsigned int count = 0;
};

std::atomic<bool> interrupted{false};

struct Tracker {
    bool json;
    unsigned int wanted;
    const ReplaySource* replay;  // null when scanning for real
    unsigned int fixes = 0;
};

int onLocation(void* argument, int code, const ZEL_Location* location) {
    auto* tracker = static_cast<Tracker*>(argument);
    printLocationLine(code, location, tracker->json);
    std::fflush(stdout);
    if (code == ZEL_OK) {
        ++tracker->fixes;
    }
    const bool replayOver = tracker->replay != nullptr && tracker->replay->exhausted();
    if (interrupted || replayOver || (tracker->wanted != 0 && tracker->fixes >= tracker->wanted)) {
        return 0;
    }
    return 1;
}

}  // namespace

void addTrackCommand(CLI::App& app) {
    auto options = std::make_shared<TrackOptions>();
    CLI::App* command = app.add_subcommand(
        "track", "Positions every period, one line per fix, until the count or Ctrl-C");
    options->addTo(command, true);
    command->add_option("--period", options->periodMs, "Scan period in milliseconds");
    command->add_option("--count", options->count, "Stop after this many fixes (0: until Ctrl-C)");
    command->add_option("--replay", options->replay, "Recorded scans (JSON Lines), one per period");
    command->callback([options] {
        ReplaySource replay;
        if (int status = chooseScanSource(options->replay, replay); status != 0) {
            setExitStatus(status);
            return;
        }
        options->apply();
        std::signal(SIGINT, [](int) { interrupted = true; });
        Tracker tracker{options->json, options->count, options->replay.empty() ? nullptr : &replay};
        ZEL_Authentication auth = options->authentication();
        int code = ZEL_periodic_location(&auth, options->lookupLevel(), options->periodMs, 0,
                                         onLocation, &tracker);
        setExitStatus(tracker.fixes > 0
                          ? ZEL_OK
                          : (code != ZEL_OK ? code : ZEL_ERROR_LOCATION_CANNOT_BE_DETERMINED));
    });
}

}  // namespace ZEL::Cli

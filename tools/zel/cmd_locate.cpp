#include <cstdio>
#include <memory>

#include "command.h"
#include "location_output.h"
#include "replay_source.h"
#include "service_options.h"

namespace ZEL::Cli {
namespace {

struct LocateOptions : ServiceOptions {
    std::string replay;
};

}  // namespace

void addLocateCommand(CLI::App& app) {
    auto options = std::make_shared<LocateOptions>();
    CLI::App* command =
        app.add_subcommand("locate", "One position from the Wi-Fi access points heard");
    options->addTo(command, true);
    command->add_option(
        "--replay", options->replay,
        "Recorded scans (JSON Lines) to use instead of the Wi-Fi adapter, one per scan period");
    command->callback([options] {
        ReplaySource replay;
        if (int status = chooseScanSource(options->replay, replay); status != 0) {
            setExitStatus(status);
            return;
        }
        options->apply();
        ZEL_Authentication auth = options->authentication();
        ZEL_Location* location = nullptr;
        int code = ZEL_location(&auth, options->lookupLevel(), &location);
        printLocation(code, location, options->json);
        ZEL_free_location(location);
        setExitStatus(code);
    });
}

}  // namespace ZEL::Cli

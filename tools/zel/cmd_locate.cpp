#include <cstdio>
#include <memory>

#include "command.h"
#include "location_output.h"
#include "replay_source.h"
#include "service_options.h"
#include "spi/wifi_adapter.h"

namespace zel::cli {
namespace {

struct LocateOptions : ServiceOptions {
    std::string replay;
};

void explainMissingAdapter() {
    std::fprintf(stderr,
                 "zel: this machine has no Wi-Fi adapter to scan with; to see a position from the "
                 "bundled sample city, run: zel locate --db examples/sample-city.zel --replay "
                 "examples/sample-walk.jsonl\n");
}

const Registrar registrar{
    "locate", [](CLI::App& app) {
        auto options = std::make_shared<LocateOptions>();
        CLI::App* command =
            app.add_subcommand("locate", "One position from the Wi-Fi access points heard");
        options->addTo(command, true);
        command->add_option(
            "--replay", options->replay,
            "Recorded scans (JSON Lines) to use instead of the Wi-Fi adapter, one per scan period");
        command->callback([options] {
            ReplaySource replay;
            if (!options->replay.empty()) {
                if (!replay.load(options->replay)) {
                    setExitStatus(1);
                    return;
                }
                replay.install();
            } else if (ZEL::SPI::Wifi::enumerateSystemAdapters().empty()) {
                explainMissingAdapter();
                setExitStatus(ZEL_ERROR_WIFI);
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
    }};

}  // namespace
}  // namespace zel::cli

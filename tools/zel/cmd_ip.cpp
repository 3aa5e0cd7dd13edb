#include <memory>

#include "command.h"
#include "location_output.h"
#include "service_options.h"

namespace ZEL::Cli {
void addIpCommand(CLI::App& app) {
    auto options = std::make_shared<ServiceOptions>();
    CLI::App* command =
        app.add_subcommand("ip", "Coarse position of this device's IP address, from the server");
    options->addTo(command, false);
    command->callback([options] {
        options->apply();
        ZEL_Authentication auth = options->authentication();
        ZEL_IPLocation* location = nullptr;
        int code = ZEL_ip_location(&auth, options->lookupLevel(), &location);
        printIpLocation(code, location, options->json);
        ZEL_free_ip_location(location);
        setExitStatus(code);
    });
}

}  // namespace ZEL::Cli

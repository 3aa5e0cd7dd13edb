#include <cstdio>
#include <memory>

#include "command.h"
#include "location_output.h"
#include "service_options.h"

namespace ZEL::Cli {
namespace {

struct RegisterOptions : ServiceOptions {
    std::string newUser;
    std::string newRealm;
};

}  // namespace

void addRegisterCommand(CLI::App& app) {
    auto options = std::make_shared<RegisterOptions>();
    CLI::App* command = app.add_subcommand("register", "Create a user on the location server");
    options->addTo(command, false, false);
    command->add_option("--new-user", options->newUser, "Name of the user to create")->required();
    command->add_option("--new-realm", options->newRealm, "Realm of the user to create")
        ->required();
    command->callback([options] {
        options->apply();
        ZEL_Authentication auth = options->authentication();
        ZEL_Authentication newUser{options->newUser.c_str(), options->newRealm.c_str()};
        int code = ZEL_register_user(&auth, &newUser);
        if (options->json) {
            std::printf("{\"code\":%d}\n", code);
        } else if (code == ZEL_OK) {
            std::printf("registered %s in realm %s\n", options->newUser.c_str(),
                        options->newRealm.c_str());
        } else {
            std::printf("registration failed: %s (code %d)\n", describeCode(code), code);
        }
        setExitStatus(code);
    });
}

}  // namespace ZEL::Cli

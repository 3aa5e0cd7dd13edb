#include <map>
#include <string>

#include "command.h"

namespace ZEL::Cli {
namespace {

std::map<std::string, CommandSetup>& registry() {
    static std::map<std::string, CommandSetup> commands;
    return commands;
}

int exitStatus = 0;

}  // namespace

Registrar::Registrar(const char* name, CommandSetup setup) {
    registry().emplace(name, std::move(setup));
}

void setExitStatus(int status) {
    exitStatus = status;
}

}  // namespace ZEL::Cli

int main(int argc, char** argv) {
    CLI::App app{
        "zel: locate this device from the Wi-Fi access points it hears, and tools for its data"};
    app.require_subcommand(1);
    for (auto& [name, setup] : ZEL::Cli::registry()) {
        setup(app);
    }
    CLI11_PARSE(app, argc, argv);
    return ZEL::Cli::exitStatus;
}

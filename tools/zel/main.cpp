#include "command.h"

namespace ZEL::Cli {
namespace {

int exitStatus = 0;

// The subcommands in the order `zel --help` lists them.
void (*const kSubcommands[])(CLI::App&) = {
    addLocateCommand, addTrackCommand, addIpCommand,        addRegisterCommand, addScanCommand,
    addTilesCommand,  addLearnCommand, addDetermineCommand, addSimCommand,      addVersionCommand,
};

}  // namespace

void setExitStatus(int status) {
    exitStatus = status;
}

}  // namespace ZEL::Cli

int main(int argc, char** argv) {
    CLI::App app{
        "zel: locate this device from the Wi-Fi access points it hears, and tools for its data"};
    app.require_subcommand(1);
    for (auto add : ZEL::Cli::kSubcommands) {
        add(app);
    }
    CLI11_PARSE(app, argc, argv);
    return ZEL::Cli::exitStatus;
}

#include "command.h"
#include "tiles_commands.h"

namespace ZEL::Cli {

void addTilesCommand(CLI::App& app) {
    CLI::App* tiles = app.add_subcommand("tiles", "Build, inspect, query and download tile files");
    tiles->require_subcommand(1);
    ZEL::Cli::addBuild(*tiles);
    ZEL::Cli::addInfo(*tiles);
    ZEL::Cli::addLookup(*tiles);
#ifndef _WIN32  // no libcurl there
    ZEL::Cli::addFetch(*tiles);
#endif
}

}  // namespace ZEL::Cli

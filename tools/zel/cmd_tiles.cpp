#include "command.h"
#include "tiles_commands.h"

namespace {

const zel::cli::Registrar registrar{"tiles", [](CLI::App& app) {
                                        CLI::App* tiles = app.add_subcommand(
                                            "tiles", "Build, inspect and query tile files");
                                        tiles->require_subcommand(1);
                                        zel::cli::tiles::addBuild(*tiles);
                                        zel::cli::tiles::addInfo(*tiles);
                                        zel::cli::tiles::addLookup(*tiles);
                                    }};

}  // namespace

// The `zel tiles` subcommands, each in its own file, added by cmd_tiles.cpp.
#pragma once

#include <CLI/CLI.hpp>

namespace ZEL::Cli {

void addBuild(CLI::App& tiles);
void addInfo(CLI::App& tiles);
void addLookup(CLI::App& tiles);
void addFetch(CLI::App& tiles);

}  // namespace ZEL::Cli

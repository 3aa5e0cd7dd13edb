// Subcommands of `zel`. Each lives in its own source file and registers itself
// with a static registrar, so adding one touches no shared file:
//
//   static const ZEL::Cli::Registrar registrar{"tiles", [](CLI::App& app) { ... }};
#pragma once

#include <CLI/CLI.hpp>

#include <functional>

namespace ZEL::Cli {

// Adds the subcommand to `app` and sets its callback; the callback reports its
// outcome through setExitStatus.
using CommandSetup = std::function<void(CLI::App& app)>;

struct Registrar {
    Registrar(const char* name, CommandSetup setup);
};

// The exit status of the program: 0 on success, otherwise the library's code (or 1
// for a usage or input error the library never saw).
void setExitStatus(int status);

}  // namespace ZEL::Cli

// Subcommands of `zel`: each lives in its own source file and adds itself to the
// program through one of these functions, listed in main.cpp's table.
#pragma once

#include <CLI/CLI.hpp>

namespace ZEL::Cli {

// Each adds its subcommand to `app` and sets its callback; the callback reports its
// outcome through setExitStatus.
void addLocateCommand(CLI::App& app);
void addTrackCommand(CLI::App& app);
void addIpCommand(CLI::App& app);
void addRegisterCommand(CLI::App& app);
void addScanCommand(CLI::App& app);
void addTilesCommand(CLI::App& app);
void addLearnCommand(CLI::App& app);
void addDetermineCommand(CLI::App& app);
void addSimCommand(CLI::App& app);
void addVersionCommand(CLI::App& app);

// The exit status of the program: 0 on success, otherwise the library's code (or 1
// for a usage or input error the library never saw).
void setExitStatus(int status);

}  // namespace ZEL::Cli

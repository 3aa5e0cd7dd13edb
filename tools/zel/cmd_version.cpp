#include <cstdio>

#include "command.h"

namespace ZEL::Cli {

void addVersionCommand(CLI::App& app) {
    CLI::App* command = app.add_subcommand("version", "Print the version of the zel tools");
    command->callback([] { std::printf("zel %s\n", ZEL_VERSION); });
}

}  // namespace ZEL::Cli

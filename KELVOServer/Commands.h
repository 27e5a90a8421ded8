// The subcommands of the `kelvo` program. Each registers its options on the
// application and runs when chosen; a run returns the process exit status.
#pragma once

#include <CLI/CLI.hpp>

namespace kelvo::cli {

// `kelvo serve`: the service in the foreground until SIGTERM or SIGINT.
void addServeCommand(CLI::App& app, int& status);

}  // namespace kelvo::cli

// The subcommands of the `kelvo` program. Each add… function registers its
// commands on the application; a command's callback runs when it is chosen and
// reports failure by throwing CommandError (Client.h).
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace kelvo::cli {

// Options every client command shares; given before or after the subcommand.
struct CommonOptions {
  std::string url;    // empty: found by ServiceClient
  bool json = false;  // print the service's raw answer
};

// `kelvo serve`: the service in the foreground until SIGTERM or SIGINT.
void addServeCommand(CLI::App& app, int& status);
// `kelvo say`, `kelvo play`.
void addSayCommands(CLI::App& app, const CommonOptions& common);
// `kelvo voices [clone|rm]`, `kelvo bind`, `kelvo unbind`, `kelvo bindings`.
void addVoiceCommands(CLI::App& app, const CommonOptions& common);
// `kelvo status`, `kelvo log`, `kelvo cache clear`.
void addStatusCommands(CLI::App& app, const CommonOptions& common);
// `kelvo prebake`.
void addPrebakeCommand(CLI::App& app, const CommonOptions& common);
// `kelvo pack export`, `kelvo pack import`.
void addPackCommands(CLI::App& app, const CommonOptions& common);
// `kelvo models [download|rm]`, `kelvo update`, `kelvo hub list|get|share|unshare`:
// models work on this machine's data root under its lock (refused while a
// service runs); the hub commands that change anything here go through the
// running service, so that its configuration and voice library stay the ones
// in charge.
void addOnlineCommands(CLI::App& app, const CommonOptions& common, int& status);

}  // namespace kelvo::cli

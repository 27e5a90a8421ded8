// kelvo: the KELVO service host and operator tool. `kelvo serve` runs the HTTP
// service in the foreground (what systemd starts); every other command is a
// thin client of a running service. See `kelvo --help`.
#include <cstdio>
#include <string>

#include "KELVOCore/Version.h"
#include "KELVOServer/Client.h"
#include "KELVOServer/Commands.h"
#include "KELVOServer/Mistakes.h"

int main(int argc, char** argv) {
  using namespace kelvo::cli;
  CLI::App app{"KELVO: local text-to-speech for airline announcements.", "kelvo"};
  app.set_version_flag("--version", "kelvo " + std::string(kelvo::KELVO::version) + " (" +
                                        std::string(kelvo::KELVO::buildTime) + ")");
  app.require_subcommand(1);
  app.fallthrough();  // --url and --json may follow the subcommand
  CommonOptions common;
  app.add_option("--url", common.url, "the service's URL (default: $KELVO_URL, else the one the data root's service published, else the configuration's)");
  app.add_flag("--json", common.json, "print the service's answer as JSON");
  app.footer(
      "Exit status: 0 done, 1 refused (by the service; for models, update and hub by the outside server or this "
      "machine), 2 bad command line, 3 no service answering.");

  int status = 0;
  addServeCommand(app, status);
  addSayCommands(app, common);
  addVoiceCommands(app, common);
  addStatusCommands(app, common);
  addPrebakeCommand(app, common);
  addPackCommands(app, common);
  addOnlineCommands(app, common, status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);  // --help and --version
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "kelvo: %s\n", explainParseError(app, e).c_str());
    return exitUsage;
  } catch (const CommandError& e) {
    std::fprintf(stderr, "%s\n", e.message.c_str());
    return e.status;
  }
  return status;
}

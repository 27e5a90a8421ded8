// kelvo: the KELVO service host and operator tool. `kelvo serve` runs the HTTP
// service in the foreground (what systemd starts); see `kelvo --help`.
#include <string>

#include "KELVOCore/Version.h"
#include "KELVOServer/Commands.h"

int main(int argc, char** argv) {
  CLI::App app{"KELVO: local text-to-speech for airline announcements.", "kelvo"};
  app.set_version_flag("--version", "kelvo " + std::string(kelvo::KELVO::version) + " (" +
                                        std::string(kelvo::KELVO::buildTime) + ")");
  app.require_subcommand(1);
  int status = 0;
  kelvo::cli::addServeCommand(app, status);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);  // --help and --version
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return 2;  // scripts tell a bad command line from a failure by this status
  }
  return status;
}

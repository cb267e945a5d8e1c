#include <tarn/tarn.h>

#include <CLI/CLI.hpp>
#include <exception>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "app/Output.h"

namespace {

using namespace tarn;

constexpr int64_t longestBackground = 365L * 24 * 60 * 60;  // seconds

int run(int argc, char** argv) {
  CLI::App app{"Fetches a video, repairs it and keeps it in an album.", "tarn"};
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("tarn ") + version());
  app.fallthrough();

  GlobalOptions global;
  int64_t backgroundSeconds = 0;
  app.add_option("--home", global.home, "Where everything is kept (else TARN_HOME, else $XDG_DATA_HOME/tarn)");
  app.add_flag("--verbose", global.verbose, "Send the log to standard error");
  app.add_flag("--json", global.json, "One JSON object a line for every event and result");
  auto* limit = app.add_option("--background-seconds", backgroundSeconds, "Time that a run may go on in the background")
                    ->check(CLI::Range(int64_t{0}, longestBackground));

  CommandTable table{.app = app, .global = global};
  addSaveCommand(table);
  addResumeCommand(table);
  addRepairCommand(table);
  addInspectCommand(table);
  addLibraryCommands(table);
  addDownloadsCommands(table);
  addServeCommand(table);
  addDemoCommand(table);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? ExitCode::done : ExitCode::usage;
  }
  sendLog(global.verbose);
  if (limit->count() > 0) global.backgroundLimit = std::chrono::seconds(backgroundSeconds);
  return table.chosen();
}

}  // namespace

int main(int argc, char** argv) {
  tarn::blockInterrupts();
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    tarn::printFailure(error.what());
    return tarn::ExitCode::failed;
  }
}

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
  auto* json = app.add_flag("--json", global.json, "One JSON object a line for every event and result");
  auto* limit = app.add_option("--background-seconds", backgroundSeconds, "Time that a run may go on in the background")
                    ->check(CLI::Range(int64_t{0}, longestBackground));

  SaveOptions saving;
  auto* save = app.add_subcommand("save", "Save the video at a URL into an album");
  save->add_option("URL", saving.url, "An http or https URL")->required();
  save->add_option("--album", saving.album, "The album; it is made when there is none of this name")->required();
  save->add_option("--filename", saving.filename, "The file's name in the album (else the URL's last part)");
  save->add_flag("--skip-video-fix", saving.skipVideoFix, "Leave the file as it comes");
  save->add_flag("--skip-audio-fix", saving.skipAudioFix, "Leave sound and timing as they come");

  auto* resume = app.add_subcommand("resume", "Finish what was interrupted");

  RepairArguments repairing;
  auto* repair = app.add_subcommand("repair", "Repair a local file; the result is a file of its own");
  repair->add_option("IN", repairing.input, "The file to repair; it is never changed")->required();
  repair->add_option("-o,--output", repairing.output, "The result; it appears whole or not at all")->required();
  repair->add_flag("--skip-video-fix", repairing.skipVideoFix, "Only copy the file");
  repair->add_flag("--skip-audio-fix", repairing.skipAudioFix, "Leave sound and timing as they are");
  repair->add_option("--like", repairing.like, "A healthy recording from the same device, for IN whose moov is lost");

  std::string inspected;
  auto* inspect =
      app.add_subcommand("inspect", "Tell what a file is, what is wrong with it and what a repair would do");
  inspect->add_option("FILE", inspected, "It is not changed")->required();

  std::optional<std::string> album;
  auto* library = app.add_subcommand("library", "List the albums and what is in them");
  library->add_option("--album", album, "Only this album");

  ServeOptions serving;
  auto* serve = app.add_subcommand("serve", "Show a page on this machine that drives it all; prints its address");
  serve->add_option("--port", serving.port, "The port on 127.0.0.1 (else any that is free)");
  serve->add_option("--web", serving.webFolder, "The folder of the built page");

  auto* demo = app.add_subcommand("demo", "Make a damaged recording, save it, and show what was repaired");
  for (auto* command : {serve, demo}) command->excludes(json);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? ExitCode::done : ExitCode::usage;
  }
  sendLog(global.verbose);
  if (limit->count() > 0) global.backgroundLimit = std::chrono::seconds(backgroundSeconds);
  if (save->parsed()) return saveCommand(global, saving);
  if (resume->parsed()) return resumeCommand(global);
  if (repair->parsed()) return repairCommand(global, repairing);
  if (inspect->parsed()) return inspectCommand(global, inspected);
  if (library->parsed()) return libraryCommand(global, album);
  if (serve->parsed()) return serveCommand(global, serving);
  return demo->parsed() ? demoCommand(global) : ExitCode::usage;
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

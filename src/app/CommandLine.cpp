#include "app/CommandLine.h"

#include <fmt/format.h>
#include <tarn/engine.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <optional>
#include <sstream>
#include <string_view>
#include <vector>

#include "app/CommandTree.h"
#include "app/FailureReport.h"
#include "app/Nearest.h"
#include "app/Output.h"
#include "app/Versions.h"

namespace tarn {
namespace {

constexpr int64_t longestBackground = 365L * 24 * 60 * 60;  // seconds

std::string footer() {
  std::string text = "An argument after `--` is no option. NO_COLOR keeps colours away.\n\nExit codes:";
  for (const auto& [code, words] : exitCodes) text += fmt::format("\n{:>5}  {}", code, words);
  return text;
}

/// The commands of all levels that the arguments have named, the innermost last.
const CLI::App& innermost(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app : innermost(*chosen.back());
}

std::vector<std::string> commandsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!command->get_name().empty()) names.push_back(command->get_name());
  }
  return names;
}

/// The long options that may stand in this place.
std::vector<std::string> optionsOf(const CLI::App* app) {
  std::vector<std::string> names;
  for (; app; app = app->get_parent()) {
    for (const CommandOption& option : factsOf(*app).options()) {
      if (!option.names.empty() && option.names.back().starts_with("--")) names.push_back(option.names.back());
    }
  }
  return names;
}

bool isOption(std::string_view argument) {
  return argument.size() > 1 && argument.starts_with('-') && argument != "--";
}

std::string unknown(const char* what, const std::string& word, const std::vector<std::string>& known,
                    const std::string& help) {
  const auto near = nearest(word, known);
  return fmt::format("There is no {} \"{}\". {}", what, word,
                     near ? fmt::format("Did you mean \"{}\"?", *near) : "`" + help + "` lists all.");
}

bool asksForJSON(int argc, const char* const* argv) {
  const auto* const end = std::find(argv, argv + argc, std::string_view("--"));
  return std::find(argv, end, std::string_view("--json")) != end;
}

}  // namespace

CommandLine::CommandLine()
    : app_(std::make_unique<CLI::App>("Fetches a video, repairs it and keeps it in an album.", "tarn")) {
  CLI::App& app = *app_;
  app.require_subcommand(1);
  app.set_version_flag("--version", versionText, "Show the version, the commit and the libraries");
  app.fallthrough();
  app.add_option("--home", global_.home, "Where everything is kept (else TARN_HOME, else $XDG_DATA_HOME/tarn)")
      ->type_name("DIR");
  CLI::Option* const verbose = app.add_flag("--verbose", global_.verbose, "Send the log to standard error");
  app.add_flag("--quiet", global_.quiet, "Say nothing but results and failures")->excludes(verbose);
  app.add_flag("--json", global_.json, "One JSON object a line for every event and result");
  backgroundLimit_ =
      app.add_option("--background-seconds", backgroundSeconds_, "Time that a run may go on in the background")
          ->check(CLI::Range(int64_t{0}, longestBackground));
  addSaveCommand(table_);
  addResumeCommand(table_);
  addRepairCommand(table_);
  addInspectCommand(table_);
  addDownloadsCommands(table_);
  addRetryCommand(table_);
  addLibraryCommands(table_);
  addServeCommand(table_);
  addDemoCommand(table_);
  addCompletionCommand(table_);
  app.footer(footer());
}

CommandLine::~CommandLine() = default;

int CommandLine::run(int argc, const char* const* argv) {
  try {
    app_->parse(argc, argv);
  } catch (const CLI::Success& help) {
    return tell(help);
  } catch (const CLI::ParseError& error) {
    return refuse(error, asksForJSON(argc, argv));
  }
  sendLog(global_.verbose);
  setQuiet(global_.quiet);
  if (backgroundLimit_->count() > 0) global_.backgroundLimit = std::chrono::seconds(backgroundSeconds_);
  try {
    const int code = table_.chosen();
    if (code < ExitCode::mayTryAgain && code != ExitCode::failed) requireWritten();
    return code;
  } catch (const EngineInterrupted&) {
    return reportInterrupt(global_, "what has been done is kept.");
  } catch (const UsageError& error) {
    if (global_.json) printJSON({{"result", "usage"}, {"error", error.what()}});
    printFailure(error.what());
    return ExitCode::usage;
  } catch (const std::exception&) {
    return reportFailure(global_, std::current_exception());
  }
}

/// Prints a help text or the version.
int CommandLine::tell(const CLI::Success& help) const {
  std::ostringstream text, none;
  const int code = app_->exit(help, text, none);
  std::string lines = text.str();
  if (lines.ends_with('\n')) lines.pop_back();
  printText(lines);
  try {
    requireWritten();
  } catch (const Error&) {
    return reportFailure(global_, std::current_exception());
  }
  return code;
}

int CommandLine::refuse(const CLI::Error& error, bool isJSON) const {
  const std::string words = whatIsWrong(error);
  if (isJSON) printJSON({{"result", "usage"}, {"error", words}});
  printFailure(words);
  return ExitCode::usage;
}

/// A word that nobody knows comes first: it may be why another one is missing.
std::string CommandLine::whatIsWrong(const CLI::Error& error) const {
  const CLI::App& command = innermost(*app_);
  const std::string help = "tarn " + (&command == app_.get() ? "" : command.get_name() + " ") + "--help";
  for (const std::string& argument : app_->remaining(true)) {
    if (isOption(argument)) {
      return unknown("option", argument.substr(0, argument.find('=')), optionsOf(&command), help);
    }
    const bool takesCommand = !commandsOf(command).empty();
    if (argument != "--" && takesCommand) return unknown("command", argument, commandsOf(command), help);
  }
  std::string words = error.what();
  if (words.starts_with("A subcommand is required")) words = "Which command?";
  const bool hasStop = words.ends_with('.') || words.ends_with('?');
  return fmt::format("{}{} `{}` tells more.", words, hasStop ? "" : ".", help);
}

int runCommandLine(int argc, const char* const* argv) {
  try {
    return CommandLine().run(argc, argv);
  } catch (const std::exception& error) {
    printFailure(error.what());
    return ExitCode::failed;
  }
}

}  // namespace tarn

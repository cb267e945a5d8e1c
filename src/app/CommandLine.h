#pragma once

#include <memory>
#include <utility>

#include "app/Commands.h"

namespace CLI {
class Error;
class Option;
class Success;
}  // namespace CLI

namespace tarn {

/// What each exit code means.
inline constexpr std::pair<ExitCode, const char*> exitCodes[] = {
    {ExitCode::done, "done"},
    {ExitCode::failed, "failed, and the same again fails too; of several files: not all are done"},
    {ExitCode::usage, "wrong usage"},
    {ExitCode::repairable, "inspect: a repair would mend the file"},
    {ExitCode::refused, "refused: no video, or beyond repair"},
    {ExitCode::partly, "kept, and a part of the video is missing"},
    {ExitCode::mayTryAgain, "failed, and trying again may help: the network, a full disk, a busy server"},
    {ExitCode::interrupted, "interrupted; what has been done is kept"},
};

/// The command line of `tarn`: all commands with their options.
class CommandLine {
 public:
  CommandLine();
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  /// The tree of commands and options, for what is made of it.
  const CLI::App& app() const { return *app_; }

  /// Runs the command that the arguments name; returns its exit code. Throws what the command throws.
  int run(int argc, const char* const* argv);

 private:
  int tell(const CLI::Success& help) const;
  int refuse(const CLI::Error& error, bool isJSON) const;
  std::string whatIsWrong(const CLI::Error& error) const;

  const std::unique_ptr<CLI::App> app_;
  GlobalOptions global_;
  int64_t backgroundSeconds_ = 0;
  CLI::Option* backgroundLimit_ = nullptr;
  CommandTable table_{.app = *app_, .global = global_};
};

/// Runs `tarn` with its arguments, and says what went wrong. Returns the exit code.
int runCommandLine(int argc, const char* const* argv);

}  // namespace tarn

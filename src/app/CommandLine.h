#pragma once

#include <memory>

#include "app/Commands.h"

namespace CLI {
class Error;
class Option;
class Success;
}  // namespace CLI

namespace tarn {

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

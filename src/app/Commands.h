#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tarn {

/// The exit codes of `tarn`.
enum ExitCode : int { done = 0, failed = 1, usage = 2, partly = 5, interrupted = 130 };

struct GlobalOptions {
  std::optional<std::string> home;
  bool verbose = false;
  bool json = false;  ///< one JSON object a line for every event and the result
  std::optional<std::chrono::seconds> backgroundLimit = std::nullopt;
};

struct SaveOptions {
  std::string url;
  std::string album;
  std::optional<std::string> filename;
  bool skipVideoFix = false;
  bool skipAudioFix = false;
};

struct RepairArguments {
  std::string input;
  std::string output;
  bool skipVideoFix = false;
  bool skipAudioFix = false;
  std::optional<std::string> like = {};
};

struct ServeOptions {
  uint16_t port = 0;                     ///< 0: any that is free
  std::optional<std::string> webFolder;  ///< a built page; else the program's own
};

/// Each command returns its exit code. What it throws is a failure for the caller to print.
int saveCommand(const GlobalOptions& global, const SaveOptions& options);
int resumeCommand(const GlobalOptions& global);
int repairCommand(const GlobalOptions& global, const RepairArguments& arguments);
int inspectCommand(const GlobalOptions& global, const std::string& file);
int libraryCommand(const GlobalOptions& global, const std::optional<std::string>& album);
int serveCommand(const GlobalOptions& global, const ServeOptions& options);
int demoCommand(const GlobalOptions& global);

}  // namespace tarn

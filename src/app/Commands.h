#pragma once

#include <tarn/tarn.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tarn {

/// The exit codes of `tarn`. Of several files: `failed` if any of them is not `done`.
enum ExitCode : int {
  done = 0,
  failed = 1,  ///< and the same again fails too
  usage = 2,
  repairable = 3,  ///< `inspect`: a repair would mend the file
  refused = 4,     ///< no video, or beyond repair
  partly = 5,      ///< kept, and a part of the video is missing
  mayTryAgain = 75,
  interrupted = 130,
};

/// What the user asks for cannot be: nothing has been done. Its words are a sentence.
class UsageError : public Error {
 public:
  explicit UsageError(const std::string& words) : Error("Usage", ExitCode::usage, words) {}
};

struct GlobalOptions {
  std::optional<std::string> home;
  bool verbose = false;
  bool quiet = false;  ///< prints results and failures alone
  bool json = false;   ///< one JSON object a line for every event and the result
  std::optional<std::chrono::seconds> backgroundLimit = std::nullopt;
};

/// The commands of `tarn` while its arguments are parsed. Each command adds itself with its options; the one that the
/// user wants sets `chosen`.
struct CommandTable {
  CLI::App& app;
  const GlobalOptions& global;
  /// Runs the command and returns its exit code. What it throws is a failure for the caller to print.
  std::function<int()> chosen = {};
};

void addSaveCommand(CommandTable& table);
void addResumeCommand(CommandTable& table);
void addRepairCommand(CommandTable& table);
void addInspectCommand(CommandTable& table);
void addLibraryCommands(CommandTable& table);
/// `downloads`, `cancel` and `pause`.
void addDownloadsCommands(CommandTable& table);
void addRetryCommand(CommandTable& table);
void addServeCommand(CommandTable& table);
void addDemoCommand(CommandTable& table);
void addCompletionCommand(CommandTable& table);

/// Lets paused downloads go on, which are named as in `tarn downloads`. Returns the exit code.
int resumeDownloads(const GlobalOptions& global, const std::vector<std::string>& ids);

}  // namespace tarn

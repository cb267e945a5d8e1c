#pragma once

#include <sys/types.h>

#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn::test {

/// The bytes of a file; empty when there is none.
std::string contentOf(const Path& file);

/// A program that runs beside the test, its output in files.
class ChildProgram {
 public:
  explicit ChildProgram(const std::vector<std::string>& command, const Path& outputDirectory);
  ~ChildProgram();
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  void signal(int number) const { ::kill(pid_, number); }
  /// Waits for the end: the exit code, or 1000 and the number of the signal that ended it.
  int wait();
  std::string output() const { return contentOf(output_); }
  std::string errors() const { return contentOf(errors_); }

 private:
  pid_t pid_ = 0;
  std::optional<int> status_;
  Path output_;
  Path errors_;
};

/// The exit code that wait() tells for a program that was killed.
inline constexpr int killedBySIGKILL = 1009;

/// Runs `tarn --home HOME <arguments>` to its end.
struct TarnResult {
  int exitCode;
  std::string output;
  std::string errors;

  std::string lastLine() const;
};
TarnResult runTarn(const Path& home, const std::vector<std::string>& arguments);

/// The command line of the same.
std::vector<std::string> tarnCommand(const Path& home, const std::vector<std::string>& arguments);

/// What a home holds after everything is done: empty when nothing is left in Documents, Transfers, tmp and the stores,
/// and no half-written file anywhere, else a description of what is.
std::string leftIn(const Path& home);

/// The regular files of the albums, hidden ones not counted, as paths relative to Photos, in order.
std::vector<std::string> savedFiles(const Path& home);

/// The number of files behind the assets.
size_t assetFiles(const Path& home);

}  // namespace tarn::test

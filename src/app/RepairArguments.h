#pragma once

#include <tarn/repair.h>

#include <optional>
#include <string>
#include <vector>

namespace tarn {

/// The command line of `tarn repair`.
struct RepairArguments {
  /// The name of standard input and output.
  static constexpr const char* stream = "-";

  std::vector<std::string> inputs = {};
  std::optional<std::string> filesFrom = {};
  bool listEndsWithZeros = false;
  std::optional<std::string> output = {};
  std::optional<std::string> outputDirectory = {};
  std::string suffix = {};
  bool isInPlace = false;
  bool lacksBackup = false;
  bool isRecursive = false;
  bool skipsDone = false;
  std::optional<unsigned> jobs = {};
  std::optional<std::string> report = {};
  RepairOptions options = {};

  bool readsStream() const { return inputs.size() == 1 && inputs.front() == stream; }
  bool writesStream() const { return output == stream; }
  /// One file that is named: its result is told as that of other commands.
  bool isSingle() const;
};

}  // namespace tarn

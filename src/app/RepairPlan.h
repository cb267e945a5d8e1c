#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// Where the results of a repair go: to one file, below a directory, or over the inputs.
struct RepairTarget {
  std::optional<Path> file = {};
  std::optional<Path> directory = {};
  std::string suffix = {};  ///< below a directory: before the ending of each name

  bool isInPlace() const { return !file && !directory; }
};

struct PlannedRepair {
  Path input;
  Path output;             ///< in place: the input
  bool isInPlace = false;  ///< asked for, and not by chance
};

/// Which inputs become which outputs.
struct RepairPlan {
  std::vector<PlannedRepair> files;
  std::vector<std::pair<Path, std::string>> unreadable;  ///< directories that could not be listed, and why
};

/// Plans the repair of files and, with `isRecursive`, of the recordings in directories and all directories below them,
/// told by their endings: an output keeps its path relative to the directory. Links in them are not followed; hidden
/// names, NAME.orig and the target's directory are passed over. An input that is named twice is repaired once. Throws
/// UsageError if two inputs would have one output, an output is an input, or a directory is named and may not be;
/// changes nothing.
RepairPlan planRepairs(const std::vector<Path>& inputs, const RepairTarget& target, bool isRecursive);

/// The paths in a list of files: one a line, or with a zero after each.
std::vector<Path> pathsInList(std::string_view list, bool endsWithZeros);

/// True if the output of an earlier run is there, and is not older than its input: it gets the time of its input. In
/// place NAME.orig tells.
bool isDone(const PlannedRepair& repair);

}  // namespace tarn

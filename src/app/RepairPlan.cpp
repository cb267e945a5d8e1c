#include "app/RepairPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <set>

#include "app/Commands.h"
#include "engine/InPlace.h"
#include "platform/Error.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

/// Of files whose boxes a repair may mend.
bool isOfRecording(const Path& name) {
  constexpr std::array<std::string_view, 12> endings{".mp4", ".m4v", ".m4a",  ".m4b", ".mov",  ".qt",
                                                     ".3gp", ".3g2", ".3gpp", ".f4v", ".mp4v", ".lrv"};
  return std::ranges::find(endings, lowered(name.extension().string())) != endings.end();
}

bool isSame(const Path& one, const Path& other) {
  std::error_code ignored;
  return fs::equivalent(one, other, ignored);
}

/// The name of a file without links and detours, also if it is not there yet.
Path plainName(const Path& path) {
  std::error_code failure;
  Path plain = fs::weakly_canonical(absolutePath(path), failure);
  return failure ? absolutePath(path).lexically_normal() : plain;
}

/// True of the same time, as file systems keep it that count in 100 ns, in whole seconds or in two of them.
bool isCutOff(fs::file_time_type kept, fs::file_time_type whole) {
  using namespace std::chrono;
  using Tenths = duration<int64_t, std::ratio<1, 10'000'000>>;
  using Pairs = duration<int64_t, std::ratio<2>>;
  return kept == floor<Tenths>(whole) || kept == floor<microseconds>(whole) || kept == floor<milliseconds>(whole) ||
         kept == floor<seconds>(whole) || kept == floor<Pairs>(whole);
}

class Planner {
 public:
  Planner(const RepairTarget& target, bool isRecursive) : target_(target), isRecursive_(isRecursive) {}

  void add(const Path& input) {
    std::error_code ignored;
    if (!fs::is_directory(input, ignored)) return plan(input, input.filename());
    if (!isRecursive_) throw UsageError(fmt::format("{} is a directory; add --recursive.", input.string()));
    if (target_.file) throw UsageError("A directory needs --output-dir or --in-place.");
    if (target_.directory && isSame(input, *target_.directory)) {
      throw UsageError(
          fmt::format("{} is both read and written; name another directory, or use --in-place.", input.string()));
    }
    addDirectory(input, "");
  }

  RepairPlan finished() && {
    if (target_.isInPlace()) return std::move(plan_);
    for (const auto& [output, index] : fileOf_) {
      const PlannedRepair& file = plan_.files[index];
      if (!inputs_.contains(output) && !isSame(file.input, file.output)) continue;
      throw UsageError(fmt::format("{} would be written over; name another {}, or use --in-place.",
                                   file.output.string(), target_.file ? "file" : "directory or a --suffix"));
    }
    return std::move(plan_);
  }

 private:
  void addDirectory(const Path& directory, const Path& below) {
    std::vector<fs::directory_entry> entries;
    std::error_code failure;
    for (fs::directory_iterator entry(directory, failure); !failure && entry != fs::directory_iterator();
         entry.increment(failure)) {
      if (!entry->path().filename().native().starts_with('.')) entries.push_back(*entry);
    }
    if (failure) {
      plan_.unreadable.emplace_back(directory, PosixError(failure.value(), "list " + directory.string()).description());
    }
    std::ranges::sort(entries);
    for (const fs::directory_entry& entry : entries) {
      std::error_code ignored;
      const fs::file_type type = entry.symlink_status(ignored).type();
      const Path name = below / entry.path().filename();
      if (type == fs::file_type::directory) {
        if (!target_.directory || !isSame(entry.path(), *target_.directory)) addDirectory(entry.path(), name);
      } else if (type == fs::file_type::regular && isOfRecording(entry.path())) {
        plan(entry.path(), name);
      }
    }
  }

  Path outputOf(const Path& input, const Path& name) const {
    if (target_.file) return *target_.file;
    if (!target_.directory) return input;
    return *target_.directory / name.parent_path() /
           (name.stem().string() + target_.suffix + name.extension().string());
  }

  void plan(const Path& input, const Path& name) {
    const Path output = outputOf(input, name);
    const Path plainInput = plainName(input);
    if (!inputs_.insert(plainInput).second) return;
    if (target_.file && !plan_.files.empty()) throw UsageError("Several files need --output-dir or --in-place.");
    const Path plainOutput = target_.isInPlace() ? plainInput : plainName(output);
    const auto [other, isNew] = fileOf_.insert({plainOutput, plan_.files.size()});
    if (!isNew) {
      throw UsageError(fmt::format("{} and {} would both become {}.", plan_.files[other->second].input.string(),
                                   input.string(), output.string()));
    }
    plan_.files.push_back({input, output, target_.isInPlace()});
  }

  const RepairTarget& target_;
  const bool isRecursive_;
  RepairPlan plan_;
  std::set<Path> inputs_;          ///< by their plain names
  std::map<Path, size_t> fileOf_;  ///< the place in the plan, by the plain names of the outputs
};

}  // namespace

RepairPlan planRepairs(const std::vector<Path>& inputs, const RepairTarget& target, bool isRecursive) {
  Planner planner(target, isRecursive);
  for (const Path& input : inputs) planner.add(input);
  return std::move(planner).finished();
}

std::vector<Path> pathsInList(std::string_view list, bool endsWithZeros) {
  std::vector<Path> paths;
  const char end = endsWithZeros ? '\0' : '\n';
  while (!list.empty()) {
    std::string_view line = list.substr(0, list.find(end));
    list.remove_prefix(std::min(line.size() + 1, list.size()));
    if (!endsWithZeros && line.ends_with('\r')) line.remove_suffix(1);
    if (!line.empty()) paths.emplace_back(line);
  }
  return paths;
}

bool isDone(const PlannedRepair& repair) {
  const Path before = repair.isInPlace ? originalOf(repair.input) : repair.input;
  if (isSame(before, repair.output)) return false;  // linked, and not repaired yet
  std::error_code none;
  const auto written = fs::last_write_time(repair.output, none);
  if (none || !fs::is_regular_file(repair.output, none)) return false;
  const auto read = fs::last_write_time(before, none);
  return !none && (written >= read || isCutOff(written, read));
}

}  // namespace tarn

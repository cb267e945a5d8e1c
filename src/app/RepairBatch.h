#pragma once

#include <tarn/repair.h>

#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "app/RepairPlan.h"

namespace tarn {

/// What became of one file of a batch.
struct RepairedFile {
  PlannedRepair file;
  RepairReport report = {};
  double seconds = 0;
  bool wasDone = false;     ///< by an earlier run; the report is empty
  bool neverBegan = false;  ///< the input or the output cannot be used, as the failure says in a whole sentence
};

/// How a batch is done.
struct BatchRules {
  unsigned jobs = 1;       ///< files at a time
  bool skipsDone = false;  ///< what isDone()
  bool makesDirectories = false;
  Original original = Original::isKept;
  RepairOptions options = {};
};

/// The number of files that are repaired at a time and the threads that encode for each, together at most `cores`.
struct Shares {
  unsigned jobs = 1;
  unsigned workers = 1;
};
Shares sharesOf(unsigned cores, std::optional<unsigned> askedJobs, size_t files);

/// Repairs the files in their order, each on one of `jobs` threads. `sink`
/// takes the results, one at a time, on these threads; `progress` comes on them too. Begins no file once `cancel` is
/// told to stop, and ends those that are under way. What `sink` throws ends the batch, and is thrown.
void repairAll(const std::vector<PlannedRepair>& files, const BatchRules& rules, const std::stop_token& cancel,
               const RepairProgressSink& progress, const std::function<void(const RepairedFile&)>& sink);

}  // namespace tarn

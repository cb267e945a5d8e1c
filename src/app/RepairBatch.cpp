#include "app/RepairBatch.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <mutex>
#include <thread>

#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

/// Encoding does not get faster with more, and disks get slower.
constexpr unsigned mostWorkers = 4;
constexpr unsigned mostJobsUnasked = 4;

RepairReport repair(const PlannedRepair& file, const BatchRules& rules, const RepairProgressSink& progress,
                    const std::stop_token& cancel) {
  if (file.isInPlace) return repairInPlace(file.input, rules.original, rules.options, progress, cancel);
  return repairFile(file.input, file.output, rules.options, progress, cancel);
}

RepairedFile repaired(const PlannedRepair& file, const BatchRules& rules, const RepairProgressSink& progress,
                      const std::stop_token& cancel) {
  RepairedFile result{.file = file};
  if (rules.skipsDone && isDone(file)) {
    result.wasDone = true;
    return result;
  }
  const auto start = std::chrono::steady_clock::now();
  try {
    if (rules.makesDirectories) PosixFileManager("").createDirectory(absolutePath(file.output).parent_path());
    result.report = repair(file, rules, progress, cancel);
  } catch (const std::exception& failure) {
    result.neverBegan = true;
    result.report.failure = failure.what();
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return result;
}

}  // namespace

Shares sharesOf(unsigned cores, std::optional<unsigned> askedJobs, size_t files) {
  const auto most = static_cast<unsigned>(std::clamp<size_t>(files, 1, std::max(cores, 1U)));
  const unsigned jobs = std::clamp(askedJobs.value_or(mostJobsUnasked), 1U, most);
  return {jobs, std::clamp(cores / jobs, 1U, mostWorkers)};
}

void repairAll(const std::vector<PlannedRepair>& files, const BatchRules& rules, const std::stop_token& cancel,
               const RepairProgressSink& progress, const std::function<void(const RepairedFile&)>& sink) {
  std::atomic<size_t> next = 0;
  std::mutex mutex;  // guards the sink and the failure
  std::exception_ptr failure;
  std::stop_source stop;
  const std::stop_callback onCancel(cancel, [&stop] { stop.request_stop(); });
  const auto work = [&] {
    while (!stop.stop_requested()) {
      const size_t index = next++;
      if (index >= files.size()) return;
      const RepairedFile result = repaired(files[index], rules, progress, stop.get_token());
      const std::lock_guard guard(mutex);
      if (failure) return;
      try {
        sink(result);
      } catch (...) {
        failure = std::current_exception();
        stop.request_stop();
      }
    }
  };
  {
    std::vector<std::jthread> threads;
    for (unsigned i = 0; i < rules.jobs; ++i) threads.emplace_back(work);
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace tarn

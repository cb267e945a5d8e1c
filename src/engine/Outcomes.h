#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "pipeline/RunOutcome.h"

namespace tarn {

/// How the downloads of this process ended, each as it ended last: of the `most` newest ones. Thread-safe.
class Outcomes {
 public:
  static constexpr size_t most = 10'000;

  /// That a download was cancelled changes nothing about one that has ended.
  void keep(const RunOutcome& outcome);

  /// Nothing if the download has not ended in this process, or if too many newer ones have.
  std::optional<RunOutcome> of(int64_t id) const;

 private:
  mutable std::mutex mutex_;
  std::map<int64_t, RunOutcome> outcomes_;  ///< the oldest first: an id is the time of its download
};

}  // namespace tarn

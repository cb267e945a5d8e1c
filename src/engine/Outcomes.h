#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "pipeline/RunOutcome.h"

namespace tarn {

/// How the downloads of this process ended, each as it ended last. Thread-safe.
class Outcomes {
 public:
  void keep(const RunOutcome& outcome);

  /// Nothing while the download has not ended in this process.
  std::optional<RunOutcome> of(int64_t id) const;

 private:
  mutable std::mutex mutex_;
  std::map<int64_t, RunOutcome> outcomes_;
};

}  // namespace tarn

#pragma once

#include <cstdint>
#include <string>

#include "pipeline/CancellationToken.h"
#include "pipeline/ProcessingState.h"

namespace tarn {

class ProcessingRun;

/// What a run reports to: the engine around it. Called on the run's thread. As it stands here it ignores everything:
/// nobody listens to a trial run.
class RunListener {
 public:
  virtual ~RunListener() = default;

  /// Stores the run's record, if the run is still the current one and the page did not cancel it; true if stored.
  virtual bool saveRecord(const CancellationToken& /*token*/, const ProcessingState& /*record*/) { return false; }

  /// The progress, from 0 to 1, of the run of this download, with the text that the page shows for it.
  virtual void progressUpdated(int64_t /*id*/, double /*progress*/, const std::string& /*stage*/) {}

  /// The last call of every run; run.outcome tells how it ended. In this order, and each once: the outcome is kept, the
  /// download shows it, the record of a final run goes and the gate is free, the background time and the slot of the
  /// run are given back, the page is told (later, on the main queue), and the next run begins. Returns true if the page
  /// has taken the run away: then nobody has a use for its files.
  virtual bool ended(const ProcessingRun& /*run*/) { return false; }
};

}  // namespace tarn

#pragma once

#include <functional>

#include "pipeline/ProcessingRun.h"

namespace tarn {

/// One step of the pipeline. Steps have no state between runs.
class ProcessingStep {
 public:
  virtual ~ProcessingStep() = default;

  /// The stage that the step enters first: the step is skipped when a run starts after it.
  virtual ProcessingStage gateStage() const = 0;

  /// Works on run.fileURL in place and enters its stages. What it throws ends the run: as cancelled for a
  /// CancellationError, else as failed. A step whose failure does not end the run catches it itself.
  virtual void run(ProcessingRun& run) = 0;
};

/// The steps of the pipeline in their order. A step that is null is not built in: its gate is skipped. The last
/// step brings the result to its place; it always runs, and sets the outcome of the run.
struct ProcessingSteps {
  /// Makes another kind of file of one that the other steps cannot work on. The record of such a file asks for all of
  /// them without a look at what it holds.
  ProcessingStep* fragments = nullptr;
  ProcessingStep* remux = nullptr;
  ProcessingStep* audio = nullptr;
  ProcessingStep* sync = nullptr;
  ProcessingStep* last = nullptr;
  /// Called after the `fragments` step for a record whose flags are not final: looks at the file and turns off what of
  /// the record it does not need.
  std::function<void(FileManager& files, ProcessingState& record)> deriveFlags = {};
  /// Called before the steps and after them, for the summary of the run: what a player shows of a file.
  std::function<std::optional<RepairSummary::Timeline>(FileManager& files, const Path& file)> readTimeline = {};
};

}  // namespace tarn

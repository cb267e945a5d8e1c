#pragma once

#include <memory>

#include "pipeline/ProcessingStateManager.h"
#include "pipeline/ProcessingStep.h"

namespace tarn {

class RunLayers;

/// How a run works on its file. The last step finds a real file under its name either way.
enum class RunFiles {
  plain,    ///< on the driver's files
  layered,  ///< in layers over them: a changed file is written once, before the last step; a recipe survives a kill
};

/// Takes one file from its checkpoint to its place: decides where to start after an interruption, runs the steps that
/// the checkpoint asks for, and ends the run in exactly one of three ways: finished, failed, cancelled.
class ProcessingDriver {
 public:
  /// All must outlive the driver.
  ProcessingDriver(FileManager& files, const Clock& clock, ProcessingStateManager& store, NamesInTheMaking& names,
                   RunListener& listener, ProcessingSteps steps, RunFiles runFiles = RunFiles::plain);

  /// Runs from start to end on the caller's thread. No error leaves it: the listener is told how the run ended.
  void continueProcessing(const ProcessingState& state, const std::shared_ptr<CancellationToken>& cancellationToken);

 private:
  ProcessingStage findStart(ProcessingRun& run, RunLayers& layers);
  ProcessingStage rollBack(ProcessingRun& run, ProcessingStage target);
  void runSteps(ProcessingRun& run, RunLayers& layers, ProcessingStage startStage);
  void lookAhead(ProcessingRun& run, RunLayers& layers);
  void summarize(ProcessingRun& run);
  void finish(ProcessingRun& run);
  void fail(ProcessingRun& run, const std::exception_ptr& failure);
  void deleteFiles(const ProcessingRun& run, bool wasTakenAway);

  FileManager& files_;
  const Clock& clock_;
  ProcessingStateManager& store_;
  NamesInTheMaking& names_;
  RunListener& listener_;
  ProcessingSteps steps_;
  const RunFiles runFiles_;
};

}  // namespace tarn

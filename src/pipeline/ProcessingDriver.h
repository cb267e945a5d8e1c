#pragma once

#include <memory>

#include "pipeline/ProcessingGate.h"
#include "pipeline/ProcessingStateManager.h"
#include "pipeline/ProcessingStep.h"

namespace tarn {

/// A run that is over, and how.
struct RunEnd {
  std::shared_ptr<CancellationToken> token;
  DownloadTaskPointer download;
  Path location;  ///< the file of the run
  ProcessingGate::Ending ending = ProcessingGate::Ending::cancelled;
};

/// What the driver asks of the engine around it. Called on the run's thread.
class ProcessingHost : public ProcessingRunListener {
 public:
  /// Puts the task in the place of its entry in the engine's map, if it has one, and persists the tasks.
  virtual void replaceDownload(const DownloadTaskPointer& download) = 0;

  /// The last call of every run. In this order, and each once: the record of a finished run goes, the gate is free, the
  /// background time that is held for the run and the slot of a run that has finished or failed are given back, the
  /// page is told, later and on the main queue, and the next run begins. True when the page has taken the run away:
  /// nobody has a use for its files.
  virtual bool endRun(const RunEnd& end) = 0;
};

/// The steps of the pipeline in their order. A step that is null is not built in: its gate is passed over. The last
/// step brings the result to its place; it always runs, and sets the task's status itself.
struct ProcessingSteps {
  ProcessingStep* remux = nullptr;
  ProcessingStep* audio = nullptr;
  ProcessingStep* sync = nullptr;
  ProcessingStep* last = nullptr;
};

/// Takes one file from its checkpoint to its place: decides where to start after an interruption, runs the steps that
/// the checkpoint asks for, and ends the run in exactly one of three ways: finished, failed, cancelled.
class ProcessingDriver {
 public:
  /// All must outlive the driver.
  ProcessingDriver(FileManager& files, const Clock& clock, ProcessingStateManager& store, NamesInTheMaking& names,
                   ProcessingHost& host, ProcessingSteps steps);

  /// Runs from start to end on the caller's thread. No error leaves it: all outcomes are told to the host.
  void continueProcessing(const ProcessingState& state, const DownloadTaskPointer& download,
                          const std::shared_ptr<CancellationToken>& cancellationToken);

 private:
  ProcessingStage findStart(ProcessingRun& run);
  ProcessingStage rollBack(ProcessingRun& run, ProcessingStage target);
  void runSteps(ProcessingRun& run, ProcessingStage startStage);
  void finish(ProcessingRun& run);
  void fail(ProcessingRun& run, const std::exception_ptr& failure);
  void deleteFiles(const ProcessingRun& run, bool wasSaved, bool wasTakenAway);

  FileManager& files_;
  const Clock& clock_;
  ProcessingStateManager& store_;
  NamesInTheMaking& names_;
  ProcessingHost& host_;
  ProcessingSteps steps_;
};

}  // namespace tarn

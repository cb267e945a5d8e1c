#pragma once

#include <memory>

#include "pipeline/ProcessingStateManager.h"
#include "pipeline/ProcessingStep.h"

namespace tarn {

/// What the driver asks of the engine around it. Called on the run's thread.
class ProcessingHost : public ProcessingRunListener {
 public:
  using Token = std::shared_ptr<CancellationToken>;

  /// Puts the task in the place of its entry in the engine's map, if it has one, and persists the tasks.
  virtual void replaceDownload(const DownloadTaskPointer& download) = 0;

  /// Removes the run's record from the store for good.
  virtual void removeRecord(const CancellationToken& token, int64_t id) = 0;

  /// Gives back the background time that is held for this download, and its slot; queued downloads may start.
  virtual void releaseBackgroundTimeAndSlot(int64_t id) = 0;

  /// Tells the page, later and on the main queue, how a finished run ended (`location` is the file that was saved, and
  /// is gone by then); and that a run failed.
  virtual void notifyFinished(const DownloadTaskPointer& download, const Path& location) = 0;
  virtual void notifyFailed(const DownloadTaskPointer& download) = 0;

  /// The last call of every run: the next one may begin.
  virtual void endRun(const Token& token) = 0;
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

  FileManager& files_;
  const Clock& clock_;
  ProcessingStateManager& store_;
  NamesInTheMaking& names_;
  ProcessingHost& host_;
  ProcessingSteps steps_;
};

}  // namespace tarn

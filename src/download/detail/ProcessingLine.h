#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "download/detail/BackgroundTime.h"
#include "download/detail/DownloadStarter.h"
#include "download/detail/EngineState.h"
#include "pipeline/ProcessingDriver.h"

namespace tarn {

/// Brings files through the pipeline, one at a time: asks the gate for runs, has them run on a worker of their own, and
/// sees to all that follows from their ends. Thread-safe; it has no lock of its own, and calls nobody under the gate's
/// but the registry and tasks.
class ProcessingLine : private RunListener {
 public:
  /// All must outlive it.
  ProcessingLine(EngineState& engine, DownloadStarter& starter, const ProcessingSteps& steps);

  /// A file whose first record is stored asks for its run: it starts now or waits in the line. If the download has
  /// ended meanwhile, record and file go.
  void enter(const ProcessingState& record, const DownloadTaskPointer& download);

  /// Resumes the oldest stored record that can be resumed, unless a run is active.
  void resumeOldest();

  /// The application has left the foreground: an active run asks for background time.
  void didEnterBackground();
  void endBackgroundTime() { backgroundTime_.end(); }

 private:
  bool resume(int64_t id);
  void startRun(const ProcessingGate::Start& start);
  void startNextRun(const ProcessingGate::Next& next);
  void startBackgroundTime(int64_t id);
  void backgroundTimeExpires();
  void showOutcome(const ProcessingRun& run, const DownloadTaskPointer& download);

  bool saveRecord(const CancellationToken& token, const ProcessingState& record) override;
  void progressUpdated(int64_t id, double progress, const std::string& stage) override;
  bool ended(const ProcessingRun& run) override;

  EngineState& engine_;
  DownloadStarter& starter_;
  ProcessingDriver driver_;
  BackgroundTime backgroundTime_;
  const std::shared_ptr<DispatchQueue> worker_;  ///< runs only, so that two can never overlap
};

}  // namespace tarn

#pragma once

#include <memory>
#include <optional>
#include <string>

#include "download/DownloadTask.h"
#include "pipeline/CancellationToken.h"
#include "pipeline/NamesInTheMaking.h"
#include "pipeline/OriginalSyncInfo.h"
#include "pipeline/ProcessingState.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/FileManager.h"

namespace tarn {

/// What a run reports to while it goes on. Called on the run's thread.
class ProcessingRunListener {
 public:
  virtual ~ProcessingRunListener() = default;

  /// Stores the run's record, if the run is still the current one and was not cancelled by the page; true when stored.
  virtual bool saveRecord(const CancellationToken& token, const ProcessingState& record) = 0;

  /// The run's progress from 0 to 1, with the text that the page shows for it.
  virtual void progressUpdated(const std::shared_ptr<DownloadTask>& download, double progress,
                               const std::string& stage) = 0;

  /// The run leaves something as it was that it could not mend without harm; `words` say what and why, for people.
  virtual void warned(const std::string& /*words*/) {}
};

/// One pass of one file through the pipeline: what the steps work on and what passes between them. It lives on the
/// run's thread.
class ProcessingRun {
 public:
  ProcessingRun(FileManager& files, const Clock& clock, NamesInTheMaking& names, ProcessingRunListener& listener,
                ProcessingState state, std::shared_ptr<DownloadTask> download,
                std::shared_ptr<CancellationToken> cancellationToken);

  FileManager& files;
  NamesInTheMaking& names;  ///< a step registers its temp files here before it makes them
  const std::shared_ptr<DownloadTask> download;
  const std::shared_ptr<CancellationToken> token;
  const Path fileURL;     ///< all steps work on this file in place
  ProcessingState state;  ///< the run record
  ProcessingTimings timings;
  TimingHelper timer;
  std::optional<OriginalSyncInfo> originalSyncInfo;  ///< left by the audio step for the sync step
  bool audioWasTranscoded = false;                   ///< set when the audio step replaced the audio track

  /// Enters a stage: the record is stored with it and the present time.
  void updateProcessingStage(ProcessingStage stage);

  /// Stores the record as it is.
  void saveState();

  void reportProgress(double progress, const std::string& stage);

  /// Logs "Warning: <words>" and tells the listener.
  void warn(const std::string& words);

 private:
  const Clock& clock_;
  ProcessingRunListener& listener_;
};

/// One step of the pipeline. Steps have no state between runs.
class ProcessingStep {
 public:
  virtual ~ProcessingStep() = default;

  /// The stage that the step enters first: the step is passed over when a run starts behind it.
  virtual ProcessingStage gateStage() const = 0;

  /// Works on run.fileURL in place and enters its stages. What it throws ends the run: as cancelled for a
  /// CancellationError, else as failed. A step whose failure ends nothing keeps it to itself.
  virtual void run(ProcessingRun& run) = 0;
};

}  // namespace tarn

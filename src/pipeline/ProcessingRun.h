#pragma once

#include <memory>
#include <optional>
#include <string>

#include "pipeline/CancellationToken.h"
#include "pipeline/NamesInTheMaking.h"
#include "pipeline/OriginalSyncInfo.h"
#include "pipeline/ProcessingState.h"
#include "pipeline/RemuxTimingHelper.h"
#include "pipeline/RunListener.h"
#include "pipeline/RunOutcome.h"
#include "platform/FileManager.h"

namespace tarn {

/// One pass of one file through the pipeline: what the steps work on and what passes between them. It lives on the
/// run's thread.
class ProcessingRun {
 public:
  /// All references must outlive the run.
  ProcessingRun(FileManager& files, const Clock& clock, NamesInTheMaking& names, RunListener& listener,
                ProcessingState state, std::shared_ptr<CancellationToken> token);

  FileManager& files;
  NamesInTheMaking& names;  ///< a step registers its temp files here before it makes them
  const std::shared_ptr<CancellationToken> token;
  const Path fileURL;     ///< all steps work on this file in place
  ProcessingState state;  ///< the run's record
  RunOutcome outcome;     ///< filled by the last step, and by the driver at the end
  ProcessingTimings timings;
  TimingHelper timer;
  std::optional<OriginalSyncInfo> originalSyncInfo;  ///< left by the audio step for the sync step
  bool audioWasTranscoded = false;                   ///< set when the audio step replaced the audio track

  /// Enters a stage: the record is stored with it and the present time.
  void updateProcessingStage(ProcessingStage stage);

  /// Stores the record as it is.
  void saveState();

  void reportProgress(double progress, const std::string& stage);

  /// The run leaves something as it was that it cannot mend without harm; `words` say what and why, for people. Logs
  /// them and keeps them in the outcome.
  void warn(const std::string& words);

  /// Something is wrong with the file and stays so; warns of it.
  void leave(const std::string& words);

  /// The run cuts the movie to the part of it that is there; warns of what is missing.
  void keepPart(const std::string& whatIsMissing);

  /// The movie lists samples that the file does not hold, and nothing brings them back; warns of them.
  void lack(const std::string& whatIsMissing);

  /// The run mends something: what was wrong, and what is done about it. Sentences for people, without a stop; either
  /// may be empty. The record keeps them from its next checkpoint on, so a pass that repeats one that was cut off may
  /// say them again.
  void mended(const std::string& wrong, const std::string& done);

  /// Forgets what was found and mended: all steps work on the source again, as the request asks for.
  void startOver();

 private:
  const Clock& clock_;
  RunListener& listener_;
};

}  // namespace tarn

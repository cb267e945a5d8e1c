#include "sync/SyncStep.h"

#include "media/AVAsset.h"
#include "platform/Log.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn {

void SyncFactsStep::run(ProcessingRun& run) {
  run.token->throwIfCancelled();
  if (AVAsset(run.files, run.fileURL).tracks(AVMediaType::audio).empty()) return;
  try {
    run.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(run.files, run.fileURL);
    log("Original sync info captured: syncOffset={:.1f}ms", run.originalSyncInfo->syncOffsetSeconds * 1000);
  } catch (const std::exception& failure) {
    log("Warning: Could not read original sync info: {}", failure.what());
  }
}

void SyncStep::run(ProcessingRun& run) {
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::syncFixing);
  TimingHelper timer;
  try {
    AVSyncTimings timings;
    const bool isFixed = MP4AVSyncFixer::fix(run.files, run.fileURL, run.token.get(), &timings, run.originalSyncInfo,
                                             run.audioWasTranscoded, &run.names);
    run.timings.avSyncFixTotal = timer.stop();
    run.timings.avSyncFix = timings;
    log("{}", isFixed ? "A/V sync fix applied successfully" : "A/V sync already correct, no fix needed");
  } catch (const std::exception& failure) {
    log("A/V sync fix error (non-critical): {}", failure.what());
  }
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::syncFixed);
}

}  // namespace tarn

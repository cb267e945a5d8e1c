#include "sync/SyncStep.h"

#include "platform/Log.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn {

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

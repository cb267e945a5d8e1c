#include "audio/FastPathAudioRepair.h"

#include "audio/FastPathAudioBuilder.h"
#include "audio/FastPathAudioWriter.h"
#include "audio/RunTempFile.h"
#include "platform/Log.h"

namespace tarn {

void performFastPathAudioRepair(ProcessingRun& run, std::span<const AudioAction> actions,
                                const AudioConfigCheck& configCheck, const RewriteCheck& check) {
  logLine("FastPath: Starting compressed audio repair");
  const RunTempFile output(run, run.fileURL.parent_path() / (makeUUID() + "_fastpath.mp4"));
  const auto result = FastPathAudioBuilder(run.files, run.fileURL, configCheck).build(actions);
  FastPathAudioBuilder::validate(result);
  log("FastPath: Built {} samples, {} silent", result.sampleCount, result.silentSamplesInserted);
  createOutputWithFastPathAudio(run, run.fileURL, output.path(), result, check);
  run.files.replaceItem(run.fileURL, output.path());
  logLine("FastPath: Audio repair completed successfully");
}

}  // namespace tarn

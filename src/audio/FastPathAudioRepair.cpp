#include "audio/FastPathAudioRepair.h"

#include "audio/AudioSwap.h"
#include "audio/FastPathAudioBuilder.h"
#include "audio/FastPathAudioWriter.h"
#include "audio/RunTempFile.h"
#include "platform/Log.h"

namespace tarn {

void performFastPathAudioRepair(ProcessingRun& run, std::span<const AudioAction> actions,
                                const AudioConfigCheck& configCheck) {
  logLine("FastPath: Starting compressed audio repair");
  const Path directory = run.fileURL.parent_path();
  const RunTempFile output(run, directory / (makeUUID() + "_fastpath.mp4"));
  const auto result = FastPathAudioBuilder(run.files, run.fileURL, configCheck).build(actions);
  FastPathAudioBuilder::validate(result);
  log("FastPath: Built {} samples, {} silent", result.sampleCount, result.silentSamplesInserted);
  const RunTempFile audio(run, directory / (makeUUID() + "_fastpath_audio.m4a"));
  writeFastPathAudioToM4A(run.files, result, audio.path());
  const std::chrono::duration<double> packet(static_cast<double>(result.sampleDelta) / result.timescale);
  AudioSwap(run).swap(audio.path(), output.path(), std::chrono::ceil<MovieTime>(packet));
  logLine("FastPath: Audio repair completed successfully");
}

}  // namespace tarn

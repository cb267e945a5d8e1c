#include "audio/fastpath/FastPathAudioRepair.h"

#include "audio/FastPathAudioBuilder.h"
#include "audio/fastpath/FastPathAudioWriter.h"
#include "audio/replace/AudioSwap.h"
#include "pipeline/RunTempFile.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// Puts `output`, the file with the packets of `result` as its audio, in the place of the video.
void createOutputWithFastPathAudio(ProcessingRun& run, const Path& output,
                                   const FastPathAudioBuilder::BuildResult& result) {
  const RunTempFile audio(run, run.fileURL.parent_path() / (makeUUID() + "_fastpath_audio.m4a"));
  writeFastPathAudioToM4A(run.files, result, audio.path());
  const std::chrono::duration<double> packet(static_cast<double>(result.sampleDelta) / result.timescale);
  AudioSwap(run).swap(audio.path(), output, std::chrono::ceil<MovieTime>(packet));
}

}  // namespace

void performFastPathAudioRepair(ProcessingRun& run, std::span<const AudioAction> actions,
                                const AudioConfigCheck& configCheck) {
  logLine("FastPath: Starting compressed audio repair");
  const RunTempFile output(run, run.fileURL.parent_path() / (makeUUID() + "_fastpath.mp4"));
  const auto result = FastPathAudioBuilder(run.files, run.fileURL, configCheck).build(actions);
  FastPathAudioBuilder::validate(result);
  log("FastPath: Built {} samples, {} silent", result.sampleCount, result.silentSamplesInserted);
  createOutputWithFastPathAudio(run, output.path(), result);
  logLine("FastPath: Audio repair completed successfully");
}

}  // namespace tarn

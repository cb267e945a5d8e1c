#include "remux/RemuxStep.h"

#include <optional>
#include <string>

#include "platform/Log.h"
#include "remux/MP4Remuxer.h"

namespace tarn {
namespace {

std::optional<std::string> detectCodec(ProcessingRun& run) {
  try {
    auto tag = MP4Remuxer::detectHEVCTag(run.files, run.fileURL);
    if (!tag) logLine("WARNING: Could not detect video codec (detection failed)");
    return tag;
  } catch (const Error& error) {
    log("ERROR detecting video codec: {}", error.description());
    return std::nullopt;
  }
}

void remux(ProcessingRun& run, std::string_view codec, const std::string& tag) {
  log("Remuxing {} video (codec: {})...", codec, tag);
  run.timer.start();
  std::optional<RemuxTimings> timings = RemuxTimings();
  try {
    if (codec == "HEVC") {
      MP4Remuxer::remuxHEVCWithParameterExtraction(run.files, run.fileURL, run.token.get(), timings);
    } else {
      MP4Remuxer::remuxAVCWithParameterExtraction(run.files, run.fileURL, tag, run.token.get(), timings);
    }
  } catch (const Error& error) {
    log("ERROR during {} remuxing: {}", codec, error.description());
    throw;
  }
  run.timings.hevcRemuxTotal = run.timer.stop();
  if (timings) run.timings.hevcRemuxing = *timings;
  log("{} remuxing completed", codec);
}

}  // namespace

void RemuxStep::run(ProcessingRun& run) {
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::remuxing);
  if (auto tag = detectCodec(run)) {
    log("Detected video codec in continueProcessing: {}", *tag);
    if (*tag == "hev1" || *tag == "hvc1") {
      remux(run, "HEVC", *tag);
    } else if (*tag == "avc1" || *tag == "avc3") {
      remux(run, "AVC", *tag);
    } else {
      log("Codec {} does not require remuxing", *tag);
    }
  }
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::remuxed);
}

}  // namespace tarn

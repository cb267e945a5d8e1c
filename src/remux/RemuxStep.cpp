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

void remuxAVC(ProcessingRun& run, const std::string& tag) {
  log("Remuxing AVC video (codec: {})...", tag);
  run.timer.start();
  try {
    if (!MP4Remuxer::remuxAVCTag(run.files, run.fileURL, tag)) {
      logLine("AVC: the parameter sets of the sample entry are left as they are");
    }
  } catch (const Error& error) {
    log("ERROR during AVC remuxing: {}", error.description());
    throw;
  }
  run.timings.hevcRemuxTotal = run.timer.stop();
  logLine("AVC remuxing completed");
}

}  // namespace

void RemuxStep::run(ProcessingRun& run) {
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::remuxing);
  if (auto tag = detectCodec(run)) {
    log("Detected video codec in continueProcessing: {}", *tag);
    if (*tag == "avc1" || *tag == "avc3") {
      remuxAVC(run, *tag);
    } else if (*tag == "hev1" || *tag == "hvc1") {
      log("HEVC: the parameter sets of the sample entry are left as they are (codec: {})", *tag);
    } else {
      log("Codec {} does not require remuxing", *tag);
    }
  }
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::remuxed);
}

}  // namespace tarn

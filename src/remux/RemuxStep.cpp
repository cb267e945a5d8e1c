#include "remux/RemuxStep.h"

#include <optional>
#include <string>

#include "mp4/MP4RemuxError.h"
#include "platform/Log.h"
#include "presentation/PresentationChange.h"
#include "remux/MP4Remuxer.h"
#include "remux/VideoPlan.h"
#include "remux/detail/RemuxCodec.h"

namespace tarn {
namespace {

bool isHEVC(std::string_view tag) {
  return remuxCodecOfTag(tag) == &hevcRemux;
}

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

void rewrite(ProcessingRun& run, const VideoPlan& plan, const std::string& tag, std::optional<RemuxTimings>& timings) {
  const auto before = Presentation::readIfPossible(run.files, run.fileURL, "What the file shows cannot be told");
  const AnnouncedChange nothing;
  const RewriteCheck check = before ? requireHarmless(run.files, *before, nothing) : RewriteCheck();
  if (isHEVC(tag)) {
    MP4Remuxer::remuxHEVCWithParameterExtraction(run.files, run.fileURL, run.token.get(), timings, &plan, check);
  } else {
    MP4Remuxer::remuxAVCWithParameterExtraction(run.files, run.fileURL, tag, run.token.get(), timings, &plan, check);
  }
  for (const std::string& loss : plan.losses) run.warn(loss);
}

void follow(ProcessingRun& run, const VideoPlan& plan, const std::string& tag, std::optional<RemuxTimings>& timings) {
  switch (plan.kind) {
    case VideoPlan::Kind::leavesAlone:
      log("The video is left alone: {}", plan.reason);
      break;
    case VideoPlan::Kind::cannot:
      run.warn("the video is left as it is: " + plan.reason);
      break;
    case VideoPlan::Kind::changesTags:
      log("The tag is repaired: {}", plan.reason);
      changeTags(run.files, run.fileURL, plan);
      break;
    case VideoPlan::Kind::rebuilds:
    case VideoPlan::Kind::splits:
      log("The video's sample entries are made anew: {}", plan.reason);
      rewrite(run, plan, tag, timings);
  }
}

/// True for what the file itself is the cause of, so that trying again would not help.
bool isOfTheFile(const Error& error) {
  if (dynamic_cast<const CancellationError*>(&error) || dynamic_cast<const PosixError*>(&error)) return false;
  const auto* remuxError = dynamic_cast<const MP4RemuxError*>(&error);
  return !remuxError || remuxError->kind() == MP4RemuxError::Case::corruptedMP4 ||
         remuxError->kind() == MP4RemuxError::Case::unsupportedFormat;
}

void remux(ProcessingRun& run, const std::string& tag) {
  const std::string_view codec = isHEVC(tag) ? "HEVC" : "AVC";
  log("Remuxing {} video (codec: {})...", codec, tag);
  run.timer.start();
  std::optional<RemuxTimings> timings = RemuxTimings();
  try {
    TimingHelper timer;
    const auto plan = planVideo(run.files, run.fileURL);
    timings->parameterExtraction = timer.stop();
    if (plan) follow(run, *plan, tag, timings);
  } catch (const Error& error) {
    log("ERROR during {} remuxing: {}", codec, error.description());
    if (!isOfTheFile(error)) throw;
    run.warn("the video is left as it is: " + error.description());
    return;
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
    if (remuxCodecOfTag(*tag)) {
      remux(run, *tag);
    } else {
      log("Codec {} does not require remuxing", *tag);
    }
  }
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::remuxed);
}

}  // namespace tarn

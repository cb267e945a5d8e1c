#include "remux/RemuxStep.h"

#include <fmt/format.h>

#include <optional>
#include <string>

#include "mp4/MP4RemuxError.h"
#include "parameters/VideoCodec.h"
#include "platform/Log.h"
#include "presentation/PresentationChange.h"
#include "remux/VideoPlan.h"
#include "remux/detail/ParameterSetRemux.h"
#include "remux/detail/TagRepair.h"

namespace tarn {
namespace {

std::optional<std::string> detectCodec(ProcessingRun& run) {
  try {
    auto tag = detectHEVCTag(run.files, run.fileURL);
    if (!tag) logLine("WARNING: Could not detect video codec (detection failed)");
    return tag;
  } catch (const Error& error) {
    log("ERROR detecting video codec: {}", error.description());
    return std::nullopt;
  }
}

void rewrite(ProcessingRun& run, const VideoPlan& plan, const VideoCodec& codec, RemuxTimings& timings) {
  const auto before = Presentation::readIfPossible(run.files, run.fileURL, "What the file shows cannot be told");
  const AnnouncedChange nothing;
  const RewriteCheck check = before ? requireHarmless(run.files, *before, nothing) : RewriteCheck();
  remuxWithParameterExtraction(run.files, run.fileURL, codec, run.token.get(), timings, &plan, check);
  for (const std::string& loss : plan.losses) run.warn(loss);
  run.mended(plan.reason, plan.remedy);
}

void follow(ProcessingRun& run, const VideoPlan& plan, const VideoCodec& codec, RemuxTimings& timings) {
  switch (plan.kind) {
    case VideoPlan::Kind::leavesAlone:
      log("The video is left alone: {}", plan.reason);
      break;
    case VideoPlan::Kind::cannot:
      run.leave("the video is left as it is: " + plan.reason);
      break;
    case VideoPlan::Kind::changesTags:
      log("The tag is repaired: {}", plan.reason);
      changeTags(run.files, run.fileURL, plan);
      run.mended(plan.reason, plan.remedy);
      break;
    case VideoPlan::Kind::rebuilds:
    case VideoPlan::Kind::splits:
      log("The video's sample entries are made anew: {}", plan.reason);
      rewrite(run, plan, codec, timings);
  }
}

/// True for what the file itself is the cause of, so that trying again would not help.
bool isOfTheFile(const Error& error) {
  if (dynamic_cast<const CancellationError*>(&error) || dynamic_cast<const PosixError*>(&error)) return false;
  const auto* remuxError = dynamic_cast<const MP4RemuxError*>(&error);
  return !remuxError || remuxError->kind() == MP4RemuxError::Case::corruptedMP4 ||
         remuxError->kind() == MP4RemuxError::Case::unsupportedFormat;
}

}  // namespace

void RemuxStep::run(ProcessingRun& run) {
  plan_.reset();
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::remuxing);
  if (auto tag = detectCodec(run)) {
    log("Detected video codec in continueProcessing: {}", *tag);
    if (const VideoCodec* codec = codecOfTag(*tag)) {
      remux(run, *codec, *tag);
    } else {
      log("Codec {} does not require remuxing", *tag);
    }
  }
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::remuxed);
}

void RemuxStep::remux(ProcessingRun& run, const VideoCodec& codec, const std::string& tag) {
  log("Remuxing {} video (codec: {})...", codec.name, tag);
  run.timer.start();
  RemuxTimings timings;
  try {
    TimingHelper timer;
    plan_ = planVideo(run.files, run.fileURL);
    timings.parameterExtraction = timer.stop();
    if (plan_) follow(run, *plan_, codec, timings);
  } catch (const Error& error) {
    log("ERROR during {} remuxing: {}", codec.name, error.description());
    if (!isOfTheFile(error)) throw;
    const bool isHarm = dynamic_cast<const RefusedResult*>(&error) != nullptr;
    run.leave(fmt::format("the video is left as it is: {} ({})",
                          isHarm ? "a repair would do harm" : "its index cannot be rewritten", error.description()));
    return;
  }
  run.timings.hevcRemuxTotal = run.timer.stop();
  run.timings.hevcRemuxing = timings;
  log("{} remuxing completed", codec.name);
}

}  // namespace tarn

#include "engine/Repair.h"

#include <fmt/format.h>

#include "download/FirstRecord.h"
#include "engine/PlacingStep.h"
#include "engine/PrivateHome.h"
#include "engine/RepairSteps.h"
#include "kind/Kind.h"
#include "pipeline/ProcessingDriver.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/Error.h"
#include "platform/host/PosixFileManager.h"
#include "platform/layers/LayeredFiles.h"
#include "recover/LostMoov.h"
#include "remux/LeftAlone.h"

namespace tarn {
namespace {

/// The engine around the single run of a repair: passes its progress on and keeps its outcome. Does not store its
/// record: a repair that was cut off begins anew.
class SingleRun : public RunListener {
 public:
  explicit SingleRun(const RepairProgress& progress) : progress_(progress) {}

  void progressUpdated(int64_t /*id*/, double progress, const std::string& stage) override {
    if (progress_) progress_(stage, progress);
  }
  bool ended(const ProcessingRun& run) override {
    outcome_ = run.outcome;
    return false;
  }

  const RunOutcome& outcome() const { return outcome_; }

 private:
  const RepairProgress& progress_;
  RunOutcome outcome_;
};

/// The name that the result's place really has: a link stays, and the file that it leads to is replaced.
Path placeOf(const Path& output) {
  std::error_code failure;
  Path place = std::filesystem::canonical(output, failure);
  return failure ? output : place;
}

/// Makes a movie of the input, whose `moov` is lost. Throws Error, CancellationError.
RebuiltMovie rebuild(LayeredFiles& files, const RepairRequest& request, const Path& rebuilt, CancellationToken& token,
                     const RepairProgress& progress) {
  constexpr double step = 0.05;
  double told = 0;
  const auto poll = [&](double part) {
    token.throwIfCancelled();
    if (progress && part >= told + step) progress("Rebuilding", told = part);
  };
  return rebuildLostMoov(files, request.input, *request.like, rebuilt, poll);
}

void append(std::optional<std::string>& note, const std::string& sentence) {
  note = note ? *note + " " + sentence : sentence;
}

}  // namespace

RepairResult repairFile(const RepairRequest& request, const std::shared_ptr<CancellationToken>& token,
                        const RepairProgress& progress) {
  const Path place = placeOf(request.output);
  const PrivateHome home(place.parent_path());
  PosixFileManager disk(home.path());
  LayeredFiles files(disk, home.path() / "new bytes");
  // The run ends with the removal of its file, so that must not be the input itself.
  const Path video = home.path() / "Documents" / "video.mp4";
  const auto facts = disk.attributes(request.input);
  RepairResult result;
  RebuiltMovie rebuilt;
  Path source = request.input;
  const Kind kind = kindOf(disk, request.input);
  const bool mayBeRebuilt = request.like && kind.what == Kind::What::lacksMoov;
  if (!kind.isMedia() && !mayBeRebuilt) throw Error("Repair", -1, kind.sentence("it"));
  if (request.like) {
    source = home.path() / "rebuilt.mp4";
    try {
      rebuilt = rebuild(files, request, source, *token, progress);
    } catch (const CancellationError&) {
      return {};
    }
    files.copyItem(source, video);
    result.note = fmt::format("The index of the movie was lost; it was rebuilt from the media: {} pictures, {:.1f} s.",
                              rebuilt.pictures, rebuilt.seconds);
  } else {
    files.layOver(video, request.input);
  }

  SystemClock clock;
  UserDefaults defaults(files, home.path() / "Defaults");
  ProcessingStateManager store(defaults, files, clock);
  const DownloadRequest wishes{.url = "", .skipVideoFix = request.skipVideoFix, .skipAudioFix = request.skipAudioFix};
  const ProcessingState record = makeFirstRecord(files, clock, 0, video, wishes);
  if (!record.needsRemuxing && !request.skipVideoFix) {
    if (const auto why = whyTheVideoIsLeftAlone(files, video)) {
      append(result.note, fmt::format("The video was left as it is: {}.", *why));
    }
  }

  SingleRun listener(progress);
  NamesInTheMaking names;
  RepairSteps steps;
  PlacingStep last(files, {source, request.input, facts}, {home.path() / "result", place});
  ProcessingDriver(files, clock, store, names, listener, steps.withLast(last)).continueProcessing(record, token);
  result.outcome = listener.outcome();
  if (rebuilt.brokenOff) {
    result.outcome.isPartly = true;
    result.outcome.leftAlone.insert(result.outcome.leftAlone.begin(), *rebuilt.brokenOff);
  }
  return result;
}

}  // namespace tarn

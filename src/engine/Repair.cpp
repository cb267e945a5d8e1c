#include "engine/Repair.h"

#include <fmt/format.h>

#include "download/FirstRecord.h"
#include "engine/PlacingStep.h"
#include "engine/PrivateHome.h"
#include "engine/RepairSteps.h"
#include "pipeline/ProcessingDriver.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/Error.h"
#include "platform/host/PosixFileManager.h"
#include "platform/layers/LayeredFiles.h"
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
  files.layOver(video, request.input);

  RepairResult result;
  SystemClock clock;
  UserDefaults defaults(files, home.path() / "Defaults");
  ProcessingStateManager store(defaults, files, clock);
  const DownloadRequest wishes{.url = "", .skipVideoFix = request.skipVideoFix, .skipAudioFix = request.skipAudioFix};
  const ProcessingState record = makeFirstRecord(files, clock, 0, video, wishes);
  if (!record.needsRemuxing && !request.skipVideoFix) {
    if (const auto why = whyTheVideoIsLeftAlone(files, video)) {
      result.note = fmt::format("The video was left as it is: {}.", *why);
    }
  }

  SingleRun listener(progress);
  NamesInTheMaking names;
  RepairSteps steps;
  PlacingStep last(files, {request.input, facts}, {home.path() / "result", place});
  ProcessingDriver(files, clock, store, names, listener, steps.withLast(last)).continueProcessing(record, token);
  result.outcome = listener.outcome();
  return result;
}

}  // namespace tarn

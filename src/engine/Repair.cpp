#include "engine/Repair.h"

#include <fmt/format.h>

#include <array>

#include "download/FirstRecord.h"
#include "engine/InPlace.h"
#include "engine/PlacingStep.h"
#include "engine/PrivateHome.h"
#include "engine/RepairRefusal.h"
#include "engine/RepairSteps.h"
#include "fragments/FragmentsError.h"
#include "inspect/Inspection.h"
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

/// The disk. A private home is made when the first file is made in it.
class DiskWithHomes : public PosixFileManager {
 public:
  DiskWithHomes(PrivateHome& work, PrivateHome& result) : PosixFileManager(work.path()), homes_{&work, &result} {}

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    if (mode == OpenMode::creating || isExclusive(mode)) {
      for (PrivateHome* home : homes_) {
        if (path.parent_path() == home->path()) home->make();
      }
    }
    return PosixFileManager::open(path, mode);
  }

 private:
  const std::array<PrivateHome*, 2> homes_;
};

/// The name that the result's place really has: a link stays, and the file that it leads to is replaced.
Path placeOf(const Path& output) {
  std::error_code failure;
  Path place = std::filesystem::canonical(output, failure);
  return failure ? output : place;
}

PlacingStep::Result::Replaces replacedBy(const RepairRequest& request) {
  using Replaces = PlacingStep::Result::Replaces;
  if (request.output != request.input) return Replaces::another;
  return request.keepsOriginal ? Replaces::inputThatIsKept : Replaces::input;
}

bool isOfTheFile(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const RepairRefusal&) {
    return true;
  } catch (const FragmentsError&) {
    return true;
  } catch (const LostMoovError&) {
    return true;
  } catch (...) {
    return false;
  }
}

/// One repair, from its begin to its end.
class SingleRepair {
 public:
  SingleRepair(const RepairRequest& request, std::shared_ptr<CancellationToken> token, const RepairProgress& progress)
      : request_(request), token_(std::move(token)), progress_(progress) {}

  RepairResult run();

 private:
  void openSource();
  void requireNameForOriginal() const;
  void rebuild();
  void tellOfRebuilding(RepairSummary& summary) const;
  void runSteps();
  void append(const std::string& sentence);

  const RepairRequest& request_;
  const std::shared_ptr<CancellationToken> token_;
  const RepairProgress& progress_;
  const Path place_ = placeOf(request_.output);
  PrivateHome work_{request_.scratch.value_or(place_.parent_path())};
  PrivateHome made_{place_.parent_path()};
  DiskWithHomes disk_{work_, made_};
  LayeredFiles files_{disk_, work_.path() / "new bytes"};
  /// The run ends with the removal of its file, so that must not be the input itself.
  const Path video_ = work_.path() / "Documents" / "video.mp4";
  const std::optional<FileAttributes> facts_ = disk_.attributes(request_.input);
  Path source_ = request_.input;
  std::string rebuilt_;                   ///< what was done about a lost index, for people
  std::vector<std::string> unbuilt_;      ///< what of it could not be, for people
  std::optional<std::string> brokenOff_;  ///< of a movie that was rebuilt, why its end is lost
  RepairResult result_;
};

RepairResult SingleRepair::run() {
  if (facts_) result_.inputSize = facts_->size;
  try {
    openSource();
    runSteps();
  } catch (const CancellationError&) {
    result_.outcome.kind = RunOutcome::Kind::cancelled;
  } catch (const Error&) {
    result_.outcome.setFailed(RunOutcome::Where::repair, std::current_exception());
  }
  RunOutcome& outcome = result_.outcome;
  if (outcome.failure && isOfTheFile(outcome.failure)) outcome.isRefused = true;
  if (outcome.kind != RunOutcome::Kind::saved) return result_;
  if (!rebuilt_.empty()) tellOfRebuilding(outcome.summary);
  for (const std::string& words : unbuilt_) outcome.leftAlone.push_back(words);
  if (brokenOff_) {
    outcome.isPartly = true;
    outcome.leftAlone.insert(outcome.leftAlone.begin(), *brokenOff_);
  }
  if (const auto written = disk_.attributes(place_)) result_.outputSize = written->size;
  return result_;
}

/// The steps have seen the movie as it was rebuilt; nobody knows what the lost one showed.
void SingleRepair::tellOfRebuilding(RepairSummary& summary) const {
  if (brokenOff_) summary.wrong.insert(summary.wrong.begin(), *brokenOff_);
  summary.wrong.insert(summary.wrong.begin(), "the movie's index (moov) is lost");
  summary.done.insert(summary.done.begin(), rebuilt_);
  summary.before.reset();
}

void SingleRepair::openSource() {
  if (request_.output == request_.input) requireReplaceable(request_.input);
  const Kind kind = kindOf(disk_, request_.input);
  const bool mayBeRebuilt = request_.like && kind.what == Kind::What::lacksMoov;
  if (!kind.isMedia() && !mayBeRebuilt) throw RepairRefusal(kind.sentence("it", NamedBy::path));
  requireNameForOriginal();
  if (request_.like) return rebuild();
  files_.layOver(video_, request_.input);
}

/// Refuses before all work, unless the file may need no repair: nothing takes its place then.
void SingleRepair::requireNameForOriginal() const {
  if (request_.output != request_.input || !request_.keepsOriginal) return;
  const auto why = whyNotKept(request_.input);
  const bool isWholeRepair = !request_.skipVideoFix && !request_.skipAudioFix && !request_.like;
  PosixFileManager disk("");
  if (why && isWholeRepair && inspect(disk, request_.input).changesFile) throw RepairRefusal(*why);
}

/// Makes a movie of the input, whose `moov` is lost.
void SingleRepair::rebuild() {
  constexpr double step = 0.05;
  double told = 0;
  source_ = work_.path() / "rebuilt.mp4";
  const RebuiltMovie rebuilt = rebuildLostMoov(files_, request_.input, *request_.like, source_, [&](double part) {
    token_->throwIfCancelled();
    if (progress_ && part >= told + step) progress_("Rebuilding", told = part);
  });
  files_.copyItem(source_, video_);
  append(fmt::format("The index of the movie was lost; it was rebuilt from the media: {} pictures, {:.1f} s.",
                     rebuilt.pictures, rebuilt.seconds));
  rebuilt_ = fmt::format("rebuilt it from the media: {} pictures, {:.1f} s", rebuilt.pictures, rebuilt.seconds);
  brokenOff_ = rebuilt.brokenOff;
  unbuilt_ = rebuilt.notes;
}

void SingleRepair::runSteps() {
  SystemClock clock;
  UserDefaults defaults(files_, work_.path() / "Defaults");
  ProcessingStateManager store(defaults, files_, clock);
  const DownloadRequest wishes{.url = "", .skipVideoFix = request_.skipVideoFix, .skipAudioFix = request_.skipAudioFix};
  const ProcessingState record = makeFirstRecord(files_, clock, 0, video_, wishes);
  if (!record.needsRemuxing && !request_.skipVideoFix) {
    if (const auto why = whyTheVideoIsLeftAlone(files_, video_)) {
      append(fmt::format("The video was left as it is: {}.", *why));
    }
  }

  SingleRun listener(progress_);
  NamesInTheMaking names;
  RepairSteps steps(request_.encoderWorkers);
  PlacingStep last(files_, {source_, request_.input, facts_}, {made_.path() / "result", place_, replacedBy(request_)});
  ProcessingDriver(files_, clock, store, names, listener, steps.withLast(last)).continueProcessing(record, token_);
  result_.outcome = listener.outcome();
  result_.isUnchanged = last.isUnchanged();
}

void SingleRepair::append(const std::string& sentence) {
  result_.note = result_.note ? *result_.note + " " + sentence : sentence;
}

}  // namespace

RepairResult repairFile(const RepairRequest& request, const std::shared_ptr<CancellationToken>& token,
                        const RepairProgress& progress) {
  return SingleRepair(request, token, progress).run();
}

}  // namespace tarn

#include "inspect/detail/RepairForecast.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "audio/SoundWords.h"
#include "download/FirstRecord.h"
#include "fragments/FragmentsStep.h"
#include "inspect/detail/MovieFacts.h"
#include "inspect/detail/SoundForecast.h"
#include "inspect/detail/VideoFacts.h"
#include "mp4/MP4BoxUtils.h"
#include "pipeline/ProcessingStep.h"
#include "platform/Error.h"
#include "platform/layers/LayeredFiles.h"
#include "platform/memory/InMemoryFileManager.h"
#include "presentation/Presentation.h"
#include "presentation/RepairHarms.h"
#include "presentation/Timeline.h"
#include "remux/LeftAlone.h"
#include "remux/RemuxStep.h"
#include "remux/VideoPlan.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SyncStep.h"

namespace tarn {
namespace {

/// Why a part of a repair does nothing that an earlier part ends.
constexpr const char* failsBefore = "the repair fails before it comes to this";

/// The repair of one file on trial, step by step.
class TrialRun {
 public:
  TrialRun(FileManager& files, Inspection& inspection)
      : files_(files, newBytes_, "/plain movie"),
        trial_(files_, newBytes_, "/new bytes"),
        inspection_(inspection),
        path_(inspection.file),
        run_(trial_, clock_, names_, listener_, makePlain(), std::make_shared<CancellationToken>()) {}

  void run() {
    if (inspection_.fragments.kind == FragmentsForecast::Kind::refuses) return refuse();
    remux();
    readSyncFacts();
    decideOnAudio();
    fixSync();
    std::ranges::copy(run_.outcome.leftAlone, std::back_inserter(inspection_.warnings));
    if (!isRepaired()) return;
    inspection_.harms = harmsOfRepair(files_, path_, trial_, path_, false);
    inspection_.changesFile = inspection_.harms.empty() &&
                              (files_.isChanged(path_) || trial_.isChanged(path_) || inspection_.audio.replacesSound());
    if (!inspection_.changesFile) return;
    inspection_.summary.done = run_.state.done;
    const SoundHoles holes = inspection_.audio.replacesSound() ? SoundHoles::filled : SoundHoles::shown;
    inspection_.summary.after = readTimeline(trial_, path_, holes);
  }

 private:
  /// Takes over what a run has found wrong since the last time.
  void listProblems(const ProcessingRun& run, Problem::Of of) {
    for (const std::string& words : run.state.wrong) {
      if (std::ranges::count(inspection_.problems, words, &Problem::words) == 0) {
        inspection_.problems.push_back({of, words});
      }
    }
  }

  /// Runs the fragments step on a trial of its own: what the others do is told by how they change its result. Returns
  /// the record after it.
  ProcessingState makePlain() {
    FragmentsForecast& forecast = inspection_.fragments;
    ProcessingRun run(files_, clock_, names_, listener_, makeFirstRecord(files_, clock_, 0, path_, {}),
                      std::make_shared<CancellationToken>());
    if (!run.state.needsRemuxing) return run.state;
    const bool isInPieces = isFragmented(files_, path_);
    try {
      FragmentsStep().run(run);
    } catch (const std::exception& failure) {
      forecast = {FragmentsForecast::Kind::refuses, failure.what()};
      return run.state;
    }
    inspection_.warnings = run.outcome.leftAlone;
    listProblems(run, Problem::Of::samples);
    const std::string said = fmt::format("{}", fmt::join(inspection_.warnings, "; "));
    if (run.outcome.isPartly) {
      forecast = {FragmentsForecast::Kind::keepsPart, said};
    } else if (files_.isChanged(path_)) {
      forecast = isInPieces ? FragmentsForecast{FragmentsForecast::Kind::joins, "its index does not list all samples"}
                            : FragmentsForecast{FragmentsForecast::Kind::correctsSize, "nothing of it is missing"};
      if (isInPieces) readPlainMovie();
    } else if (!said.empty()) {
      forecast = {FragmentsForecast::Kind::leavesAlone, said};
    }
    ProcessingState record = run.state;
    record.lostEnd.reset();  // told already
    if (!record.areFlagsFinal) deriveFlags(files_, record);
    return record;
  }

  /// A movie in fragments has its samples beside its tracks; people want to know the tracks with their samples.
  void readPlainMovie() {
    const auto movie = files_.open(path_, OpenMode::reading);
    inspection_.tracks = readTracks(*movie);
    inspection_.video = readVideo(*movie);
  }

  void refuse() {
    inspection_.remux.reason = failsBefore;
    inspection_.audio.reason = failsBefore;
    inspection_.syncFix = {SyncForecast::Kind::notReached, failsBefore};
    readSyncFacts();
  }

  bool isRepaired() const { return inspection_.remux.kind != RemuxForecast::Kind::refuses; }

  void remux() {
    RemuxForecast& forecast = inspection_.remux;
    if (!run_.state.needsRemuxing) {
      forecast.reason = whyTheVideoIsLeftAlone(trial_, path_).value_or("there is no video track");
      return;
    }
    RemuxStep step;
    try {
      step.run(run_);
    } catch (const std::exception& failure) {
      forecast.kind = RemuxForecast::Kind::refuses;
      forecast.reason = failure.what();
      return;
    }
    forecast.changesFile = trial_.isChanged(path_);
    listProblems(run_, Problem::Of::video);
    auto result = trial_.open(path_, OpenMode::reading);
    if (auto video = readVideo(*result, false)) forecast.entries = std::move(video->entries);
    tellWhatWasDone(forecast);
    const std::optional<VideoPlan>& plan = step.plan();
    if (plan) forecast.reason = plan->reason;
    if (plan && forecast.changesFile) forecast.losses = plan->losses;
    if (!forecast.changesFile && !run_.outcome.leftAlone.empty()) {
      forecast.reason = fmt::format("{}", fmt::join(run_.outcome.leftAlone, "; "));
    }
    if (inspection_.video && trial_.isReplaced(path_)) {
      listLosses(*result, forecast);
    }
  }

  void tellWhatWasDone(RemuxForecast& forecast) {
    using Kind = RemuxForecast::Kind;
    const bool isSplit = run_.timings.hevcRemuxing.isMultipleSampleEntries;
    forecast.kind = !forecast.changesFile      ? Kind::leavesAlone
                    : isSplit                  ? Kind::splits
                    : trial_.isReplaced(path_) ? Kind::rebuilds
                                               : Kind::changesTag;
  }

  /// Bytes that the steps do not take over: of the entry that they copied, and after the last box.
  void listLosses(FileHandle& result, RemuxForecast& forecast) {
    const std::vector<SampleEntryFacts>& entries = inspection_.video->entries;
    if (entries.empty()) return;
    const SampleEntryFacts& entry = entries.front();
    if (entry.strayBytes > 0) {
      forecast.losses.push_back(
          fmt::format("{} bytes at the end of the sample entry{} are not copied", entry.strayBytes,
                      entry.firstStray.empty() ? " that are no box"
                                               : fmt::format(", from a '{}' on that overruns it,", entry.firstStray)));
    }
    if (entries.size() > 1 && forecast.kind == RemuxForecast::Kind::splits) {
      forecast.losses.push_back(
          fmt::format("the {} sample entries of now give way to {} new ones", entries.size(), forecast.entries.size()));
    }
    const uint64_t before = bytesBesideMoov(*files_.open(path_, OpenMode::reading));
    const uint64_t after = bytesBesideMoov(result);
    if (after < before) {
      forecast.losses.push_back(
          fmt::format("{} bytes at the end of the file are no box and are not copied", before - after));
    }
  }

  static uint64_t bytesBesideMoov(FileHandle& file) {
    const auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
    return file.seekToEnd() - (moov ? moov->size : 0);
  }

  void readSyncFacts() {
    try {
      inspection_.sync = MP4AVSyncFixer::readOriginalSyncInfo(files_, path_);
    } catch (const std::exception& failure) {
      inspection_.syncProblem = failure.what();
    }
  }

  void decideOnAudio() {
    AudioForecast& forecast = inspection_.audio;
    if (!isRepaired()) {
      forecast.reason = failsBefore;
      return;
    }
    forecast = forecastAudioStep(trial_, path_, run_.state.needsAudioTranscode);
    for (const std::string& words : soundWarnings(forecast)) run_.warn(words);
    if (!forecast.findings) return;
    run_.originalSyncInfo = forecast.findings->originalSyncInfo;
    for (const std::string& words : wrongWithSound(*forecast.findings)) run_.mended(words, "");
    if (forecast.replacesSound()) run_.mended("", doneToSound(forecast));
    listProblems(run_, Problem::Of::sound);
  }

  void fixSync() {
    using Kind = SyncForecast::Kind;
    SyncForecast& forecast = inspection_.syncFix;
    if (!isRepaired()) {
      forecast = {Kind::notReached, failsBefore};
      return;
    }
    if (run_.state.skipAVSync) {
      forecast = {Kind::nothing, "the movie is in fragments"};
      return;
    }
    const std::vector<std::string>& warnings = run_.outcome.leftAlone;
    const size_t before = warnings.size();
    try {
      forecast.order = neededLists();
      SyncStep().run(run_);
      listProblems(run_, Problem::Of::editLists);
      const bool isDone = !neededLists().isNeeded();
      if (!forecast.order.isNeeded()) {
        forecast = {Kind::nothing, "no track needs another edit list"};
      } else if (isDone) {
        forecast.kind = Kind::writes;
        forecast.reason = "some are damaged, or missing where one is needed";
      } else {
        forecast.kind = Kind::fails;
        forecast.reason = warnings.size() > before ? warnings.back() : "the edit lists cannot be written";
      }
    } catch (const std::exception& failure) {
      forecast.kind = Kind::fails;
      forecast.reason = failure.what();
    }
  }

  SyncFixOrder neededLists() {
    const auto presentation = Presentation::read(trial_, path_);
    SyncFixOrder order = orderSyncFix(presentation);
    if (inspection_.audio.replacesSound()) leaveNewSoundOut(presentation, order);
    return order;
  }

  /// A new sound track comes with the edit list that it needs.
  static void leaveNewSoundOut(const Presentation& presentation, SyncFixOrder& order) {
    const TrackPresentation* sound = presentation.first("soun");
    std::erase_if(order.tracks, [&](const auto& track) { return sound && track.trackID == sound->trackID; });
  }

  InMemoryFileManager newBytes_;  ///< a trial run writes nothing to the disk
  LayeredFiles files_;            ///< as the fragments step leaves them
  LayeredFiles trial_;            ///< as the other steps do
  Inspection& inspection_;
  const Path path_;
  SystemClock clock_;
  NamesInTheMaking names_;
  RunListener listener_;
  ProcessingRun run_;
};

}  // namespace

void forecastRepair(FileManager& files, Inspection& inspection) {
  TrialRun(files, inspection).run();
}

}  // namespace tarn

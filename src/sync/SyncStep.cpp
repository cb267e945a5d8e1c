#include "sync/SyncStep.h"

#include <fmt/ranges.h>

#include <algorithm>

#include "platform/Log.h"
#include "presentation/MissingSamples.h"
#include "presentation/PresentationChange.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn {
namespace {

/// Of samples that the tables place behind the end of the file.
void warnOfMissing(ProcessingRun& run, const std::vector<IncompleteTrack>& incomplete) {
  std::vector<std::string> tracks;
  for (const IncompleteTrack& track : incomplete) {
    if (std::ranges::count(tracks, track.name) == 0) tracks.push_back(track.name);
  }
  if (tracks.empty()) return;
  run.lack(fmt::format("A part of the {} is not in the file, and no repair brings it back",
                       fmt::join(tracks, " and of the ")));
}

/// Throws if the tables of a track cannot be read; what can be read of the others is told.
Presentation readPresentation(ProcessingRun& run) {
  try {
    return Presentation::read(run.files, run.fileURL);
  } catch (const Error&) {
    warnOfMissing(run, incompleteTracks(run.files, run.fileURL));
    throw;
  }
}

/// Writes the edit lists that are wrong anew; false if there are none.
bool fixEditLists(ProcessingRun& run, AVSyncTimings& timings) {
  TimingHelper timer;
  const Presentation presentation = readPresentation(run);
  const SyncFixOrder order = orderSyncFix(presentation);
  timings.analyzeSync = timer.stop();
  warnOfMissing(run, incompleteTracks(presentation));
  if (!order.isNeeded()) return false;
  for (const auto& track : order.tracks)
    log("Track {} needs another edit list, since {}", track.trackID, track.list.reason);
  const AnnouncedChange announced;
  const bool isFixed = MP4AVSyncFixer::fix(run.files, run.fileURL, run.token.get(), &timings, run.originalSyncInfo,
                                           run.audioWasTranscoded, &run.names, &order,
                                           requireHarmless(run.files, presentation, announced));
  if (!isFixed) return false;
  for (const auto& track : order.tracks) run.mended(track.list.reason, track.list.remedy);
  return true;
}

void fix(ProcessingRun& run) {
  if (isFragmented(run.files, run.fileURL)) {
    run.leave("The movie is in fragments: its edit lists are left as they are");
    return;
  }
  TimingHelper timer;
  AVSyncTimings timings;
  const bool isFixed = fixEditLists(run, timings);
  run.timings.avSyncFixTotal = timer.stop();
  run.timings.avSyncFix = timings;
  log("{}", isFixed ? "A/V sync fix applied successfully" : "A/V sync already correct, no fix needed");
}

}  // namespace

void SyncStep::run(ProcessingRun& run) {
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::syncFixing);
  try {
    fix(run);
  } catch (const RefusedResult& refusal) {
    run.leave("The edit lists are left as they are, for new ones would do harm: " + refusal.description());
  } catch (const std::exception& failure) {
    log("A/V sync fix error (non-critical): {}", failure.what());
  }
  run.token->throwIfCancelled();
  run.updateProcessingStage(ProcessingStage::syncFixed);
}

}  // namespace tarn

#include "app/PlacingStep.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <optional>

#include "download/DownloadTask.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

std::optional<Presentation> readIfPossible(FileManager& files, const Path& path) {
  try {
    return Presentation::read(files, path);
  } catch (const Error& failure) {
    log("The presentation of the source cannot be read: {}", failure.description());
    return std::nullopt;
  }
}

}  // namespace

AnnouncedChange announcedByRepair(const Presentation& source, bool soundWasReplaced) {
  AnnouncedChange announced{.comparesBytes = false};
  const TrackPresentation* sound = source.first("soun");
  if (!soundWasReplaced || !sound) return announced;
  announced.remadeTrack = sound->trackID;
  announced.packetLength = sound->sampleLength(0);
  return announced;
}

std::vector<std::string> harmsOfRepair(FileManager& sourceFiles, const Path& source, FileManager& resultFiles,
                                       const Path& result, bool soundWasReplaced) {
  const auto before = readIfPossible(sourceFiles, source);
  if (!before) return {};
  const AnnouncedChange announced = announcedByRepair(*before, soundWasReplaced);
  try {
    const Presentation after = Presentation::read(resultFiles, result);
    return harmsOf(comparePresentations(*before, after, std::nullopt, announced), *before, after, announced);
  } catch (const PosixError&) {
    throw;
  } catch (const Error& failure) {
    return {"the result cannot be read: " + failure.description()};
  }
}

void PlacingStep::run(ProcessingRun& run) {
  run.timings.printSummary();
  run.token->throwIfCancelled();
  const auto harms = harmsOfRepair(run.files, source_, run.files, run.fileURL, run.audioWasTranscoded);
  // The run cleans up the file that it worked on, so the place gets another name of it.
  Path result = run.files.temporaryDirectory() / "result";
  if (!harms.empty()) {
    run.warn(fmt::format("The file was left as it is, since its repair would do harm: {}", fmt::join(harms, "; ")));
    run.files.copyItem(source_, result);
  } else {
    try {
      run.files.linkItem(run.fileURL, result);
    } catch (const PosixError&) {
      result = run.fileURL;  // a file system without hard links
    }
  }
  PosixFileManager(place_.parent_path()).replaceItem(place_, result);
  run.download->update([](DownloadTask::Snapshot& fields) { fields.status = DownloadStatus::completed; });
}

}  // namespace tarn

#include "presentation/RepairHarms.h"

#include "presentation/Harms.h"

namespace tarn {
namespace {

/// The sound, if it was replaced, with packets that are up to one packet off their place. Each step has compared the
/// bytes of its own result.
AnnouncedChange announcedByRepair(const Presentation& source, bool soundWasReplaced) {
  AnnouncedChange announced{.comparesBytes = false};
  const TrackPresentation* sound = source.first("soun");
  if (!soundWasReplaced || !sound) return announced;
  announced.remadeTrack = sound->trackID;
  announced.packetLength = sound->sampleLength(0);
  return announced;
}

}  // namespace

std::vector<std::string> harmsOfRepair(FileManager& sourceFiles, const Path& source, FileManager& resultFiles,
                                       const Path& result, bool soundWasReplaced) {
  const auto before =
      Presentation::readIfPossible(sourceFiles, source, "The presentation of the source cannot be read");
  if (!before) return {};
  return harmsOfResult(resultFiles, result, *before, std::nullopt, announcedByRepair(*before, soundWasReplaced));
}

}  // namespace tarn

#include "presentation/RepairHarms.h"

#include "presentation/Harms.h"

namespace tarn {

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
  const auto before =
      Presentation::readIfPossible(sourceFiles, source, "The presentation of the source cannot be read");
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

}  // namespace tarn

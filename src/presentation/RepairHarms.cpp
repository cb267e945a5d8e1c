#include "presentation/RepairHarms.h"

#include <optional>

#include "platform/Log.h"

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

}  // namespace tarn

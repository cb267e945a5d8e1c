#include "presentation/MissingSamples.h"

#include <fmt/format.h>

#include "mp4/BoxWalker.h"
#include "mp4/MP4BoxUtils.h"
#include "mp4/TableBox.h"
#include "platform/ReadWatch.h"
#include "presentation/TrackWords.h"

namespace tarn {
namespace {

void addIfIncomplete(std::vector<IncompleteTrack>& tracks, std::string name, const std::string& handler,
                     const SampleLocations& locations) {
  const uint32_t missing = locations.countMissing();
  if (missing > 0) tracks.push_back({std::move(name), handler, missing, locations.count()});
}

std::vector<IncompleteTrack> readTracks(FileHandle& file) {
  std::vector<IncompleteTrack> tracks;
  const auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) return tracks;
  FileBoxWalker walker(file, moov->contentOffset(), moov->end(), boxwalk::tracks);
  while (const auto box = walker.next()) {
    if (box->type != "trak") continue;
    try {
      const auto mdia = requireTableBox(file, *box, "mdia");
      const SampleLocations locations(file, requireTableBox(file, requireTableBox(file, mdia, "minf"), "stbl"));
      const std::string handler = MP4BoxUtils::getHandlerType(file, *box).value_or("");
      addIfIncomplete(tracks, handlerWords(handler), handler, locations);
    } catch (const Error&) {
      continue;  // the file's own readers tell of it; a read that fails is told by the watch
    }
  }
  return tracks;
}

}  // namespace

std::string IncompleteTrack::words() const {
  if (handler == "vide") return fmt::format("{} picture{} not in the file", missing, missing == 1 ? " is" : "s are");
  const char* unit = handler == "soun" ? "packets" : "samples";
  return fmt::format("{} of the {} {} of the {} {} not in the file", missing, samples, unit, name,
                     missing == 1 ? "is" : "are");
}

std::vector<IncompleteTrack> incompleteTracks(const Presentation& movie) {
  std::vector<IncompleteTrack> tracks;
  for (const TrackPresentation& track : movie.tracks()) {
    addIfIncomplete(tracks, trackWords(movie, track.handler, track.trackID), track.handler, track.locations);
  }
  return tracks;
}

std::vector<IncompleteTrack> incompleteTracks(FileManager& files, const Path& path) {
  if (isFragmented(files, path)) return {};
  return readWatched(ReadWatch(files.open(path, OpenMode::reading)), readTracks);
}

}  // namespace tarn

#include "inspect/Inspection.h"

#include <fmt/format.h>

#include <algorithm>

#include "fragments/FragmentsStep.h"
#include "inspect/detail/MovieFacts.h"
#include "inspect/detail/RepairForecast.h"
#include "inspect/detail/VideoFacts.h"
#include "kind/Kind.h"
#include "mp4/MP4BoxUtils.h"
#include "presentation/Timeline.h"
#include "presentation/TrackWords.h"

namespace tarn {
namespace {

auto countBoxes(const Inspection& inspection, std::string_view type) {
  return std::ranges::count(inspection.boxes, type, &TopLevelBox::type);
}

/// "index (moov)": what people call a box.
std::string boxWords(const std::string& type) {
  if (type == "moov") return "index (moov)";
  if (type == "mdat") return "media (mdat)";
  return fmt::format("\"{}\" box", type);
}

void listFileProblems(Inspection& inspection) {
  auto add = [&](std::string words, Problem::Of of = Problem::Of::file) {
    inspection.problems.push_back({of, std::move(words)});
  };
  for (const TopLevelBox& box : inspection.boxes) {
    if (box.missingBytes == 0) continue;
    add(fmt::format("the file ends {} bytes before the end that its {} promises", box.missingBytes, boxWords(box.type)),
        box.type == "mdat" ? Problem::Of::samples : Problem::Of::file);
  }
  if (countBoxes(inspection, "moov") > 1) add("the file has several indexes (moov), of which players read the first");
  for (const TrackFacts& track : inspection.tracks) {
    if (track.lacksDuration) add(fmt::format("track {} does not say how long it is", track.id));
  }
  if (inspection.video && inspection.video->problem)
    add("the list of the video's pictures cannot be read: " + *inspection.video->problem);
}

/// What the tables and edit lists tell of damage.
void listPresentationProblems(const Presentation& presentation, Inspection& inspection) {
  for (const TrackPresentation& track : presentation.tracks()) {
    if (track.damage == EditListDamage::none) continue;
    inspection.problems.push_back({Problem::Of::editLists, editListWords(presentation, track)});
  }
}

void listMissing(std::vector<IncompleteTrack> incomplete, Inspection& inspection) {
  for (const auto& track : incomplete) inspection.problems.push_back({Problem::Of::samples, track.words()});
  inspection.incomplete = std::move(incomplete);
}

void readPresentation(FileManager& files, Inspection& inspection) {
  if (!inspection.hasMovie) return;
  if (isFragmented(files, inspection.file)) {
    inspection.problems.push_back({Problem::Of::samples, std::string(inFragments)});
    return;
  }
  try {
    const auto presentation = Presentation::read(files, inspection.file);
    listMissing(incompleteTracks(presentation), inspection);
    listPresentationProblems(presentation, inspection);
    inspection.summary.before = inspection.summary.after = timelineOf(presentation);
    inspection.isComparable = true;
  } catch (const Error& failure) {
    listMissing(incompleteTracks(files, inspection.file), inspection);
    inspection.problems.push_back({Problem::Of::file, "its index cannot be read: " + failure.description()});
  }
}

/// What the file is, where that is not a movie with samples: no player shows it, or nothing in it is repaired.
void tellKind(FileManager& files, Inspection& inspection) {
  const Kind kind = kindOf(files, inspection.file);
  const std::string words = kind.sentence("it", NamedBy::path);
  if (!kind.isMedia()) inspection.refusal = words;
  if (!inspection.hasMovie && kind.what != Kind::What::lacksMoov) {
    inspection.boxes.clear();
    inspection.boxesProblem.reset();
    inspection.problems = {{Problem::Of::file, kind.isMedia() ? words + ", in which nothing is repaired" : words}};
  } else if (!kind.isMedia()) {
    inspection.problems.insert(inspection.problems.begin(), {Problem::Of::file, words});
  }
}

}  // namespace

Inspection inspect(FileManager& files, const Path& path) {
  Inspection inspection;
  inspection.file = path;
  auto file = files.open(path, OpenMode::reading);
  readTopLevel(*file, inspection);
  inspection.hasMovie = MP4BoxUtils::findTopLevelBox(*file, "moov").has_value();
  inspection.tracks = readTracks(*file);
  inspection.video = readVideo(*file);
  listFileProblems(inspection);
  tellKind(files, inspection);
  readPresentation(files, inspection);
  if (!inspection.refusal) forecastRepair(files, inspection);
  for (const Problem& problem : inspection.problems) inspection.summary.wrong.push_back(problem.words);
  inspection.verdict = verdictOn(inspection);
  return inspection;
}

}  // namespace tarn

#include "inspect/Inspection.h"

#include <fmt/format.h>

#include <algorithm>

#include "inspect/detail/MovieFacts.h"
#include "inspect/detail/RepairForecast.h"
#include "inspect/detail/VideoFacts.h"
#include "kind/Kind.h"
#include "mp4/MP4BoxUtils.h"
#include "presentation/Presentation.h"

namespace tarn {
namespace {

auto countBoxes(const Inspection& inspection, std::string_view type) {
  return std::ranges::count(inspection.boxes, type, &TopLevelBox::type);
}

void listFileProblems(Inspection& inspection) {
  auto add = [&](std::string words, Problem::Of of = Problem::Of::file) {
    inspection.problems.push_back({of, std::move(words)});
  };
  for (const TopLevelBox& box : inspection.boxes) {
    if (box.missingBytes == 0) continue;
    add(fmt::format("the {} at {} overruns the file by {} bytes", box.type, box.offset, box.missingBytes),
        box.type == "mdat" ? Problem::Of::samples : Problem::Of::file);
  }
  if (countBoxes(inspection, "moov") > 1) add("there are several moov boxes; the first one counts");
  for (const TrackFacts& track : inspection.tracks) {
    if (track.lacksDuration) add(fmt::format("the mdhd of track {} does not tell how long it is", track.id));
  }
  if (!inspection.video) return;
  if (const int64_t missing = inspection.video->missingSamples; missing > 0) {
    add(fmt::format("{} picture{} behind the end of the file", missing, missing == 1 ? " ends" : "s end"),
        Problem::Of::samples);
  }
  if (inspection.video->problem) add("the sample table of the video: " + *inspection.video->problem);
}

std::string damageText(EditListDamage damage) {
  switch (damage) {
    case EditListDamage::none:
      return "is whole";
    case EditListDamage::showsNothing:
      return "shows nothing of it";
    case EditListDamage::mediaTimeBelowMinusOne:
      return "has a media time below -1";
    case EditListDamage::liesBehindMedia:
      return "lies behind its media";
  }
  return "";
}

/// What the tables and edit lists tell of damage.
void listPresentationProblems(const Presentation& presentation, Inspection& inspection) {
  for (const TrackPresentation& track : presentation.tracks()) {
    if (track.damage == EditListDamage::none) continue;
    inspection.problems.push_back({Problem::Of::editLists,
                                   fmt::format("the edit list of track {} {}", track.trackID, damageText(track.damage)),
                                   track.trackID});
  }
  const TrackPresentation* sound = presentation.first("soun");
  if (!sound) return;
  inspection.missingPackets = sound->locations.count() - sound->locations.countInFile();
  if (inspection.missingPackets == 0) return;
  inspection.problems.push_back(
      {Problem::Of::samples, fmt::format("{} of the {} packets of the sound are not in the file",
                                         inspection.missingPackets, sound->locations.count())});
}

void readPresentation(FileManager& files, Inspection& inspection) {
  if (!inspection.hasMovie) return;
  if (isFragmented(files, inspection.file)) {
    inspection.problems.push_back({Problem::Of::samples, "it is in fragments: its moov does not list all samples"});
    return;
  }
  try {
    listPresentationProblems(Presentation::read(files, inspection.file), inspection);
    inspection.isComparable = true;
  } catch (const Error& failure) {
    inspection.problems.push_back({Problem::Of::file, "its tables cannot be read: " + failure.description()});
  }
}

/// A step that changes the file does so for a reason, which is a problem of the file.
void nameWhatIsMended(Inspection& inspection) {
  auto name = [&](bool changes, Problem::Of of, const std::string& reason) {
    if (changes && std::ranges::count(inspection.problems, of, &Problem::of) == 0) {
      inspection.problems.push_back({of, reason});
    }
  };
  name(inspection.remux.changesFile, Problem::Of::video, inspection.remux.reason);
  name(inspection.audio.replacesSound(), Problem::Of::sound, inspection.audio.reason);
  if (inspection.syncFix.kind != SyncForecast::Kind::writes) return;
  for (const auto& [trackID, list] : inspection.syncFix.order.tracks) {
    const auto isOfList = [id = trackID](const Problem& problem) {
      return problem.of == Problem::Of::editLists && problem.trackID == id;
    };
    if (std::ranges::any_of(inspection.problems, isOfList)) continue;
    inspection.problems.push_back(
        {Problem::Of::editLists, fmt::format("track {} needs an edit list: {}", trackID, list.reason), trackID});
  }
}

/// What the file is, where that is not a movie with samples: no player shows it, or nothing in it is repaired.
void tellKind(FileManager& files, Inspection& inspection) {
  const Kind kind = kindOf(files, inspection.file);
  const std::string words = kind.sentence("it");
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
  nameWhatIsMended(inspection);
  inspection.verdict = verdictOn(inspection);
  return inspection;
}

}  // namespace tarn

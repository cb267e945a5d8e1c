#include "app/inspect/Inspection.h"

#include <fmt/format.h>

#include <algorithm>

#include "app/inspect/MovieFacts.h"
#include "app/inspect/RepairForecast.h"

namespace tarn {
namespace {

auto countBoxes(const Inspection& inspection, std::string_view type) {
  return std::ranges::count(inspection.boxes, type, &TopLevelBox::type);
}

std::vector<std::string> problemsOfEntry(const SampleEntryFacts& entry) {
  std::vector<std::string> problems;
  const bool isHEVC = entry.tag == "hev1" || entry.tag == "hvc1";
  if (!isHEVC && entry.tag != "avc1" && entry.tag != "avc3") return problems;
  if (entry.tag == "hev1" || entry.tag == "avc3") {
    problems.push_back(
        fmt::format("the tag {} leaves the parameter sets to the samples, which some players refuse", entry.tag));
  }
  const char* type = isHEVC ? "hvcC" : "avcC";
  if (!entry.configuration || entry.configuration->type != type) {
    problems.push_back(fmt::format("the sample entry {} has no {}", entry.tag, type));
  } else if (entry.configuration->problem) {
    problems.push_back(fmt::format("the {} cannot be read: {}", type, *entry.configuration->problem));
  } else if (!entry.configuration->isComplete) {
    problems.push_back(fmt::format("the {} lacks parameter sets", type));
  }
  constexpr uint64_t terminator = 4;  // a QuickTime writer's, of zeros
  if (entry.strayBytes > terminator) {
    problems.push_back(fmt::format("{} bytes in the sample entry {} are no whole box", entry.strayBytes, entry.tag));
  }
  return problems;
}

void listProblems(Inspection& inspection) {
  std::vector<std::string>& problems = inspection.problems;
  for (const TopLevelBox& box : inspection.boxes) {
    if (box.missingBytes == 0) continue;
    problems.push_back(
        fmt::format("the {} at {} overruns the file by {} bytes", box.type, box.offset, box.missingBytes));
  }
  if (inspection.boxesProblem) problems.push_back(*inspection.boxesProblem);
  if (countBoxes(inspection, "moov") == 0) problems.emplace_back("there is no moov box");
  if (countBoxes(inspection, "moov") > 1) problems.emplace_back("there are several moov boxes; the first one counts");
  if (countBoxes(inspection, "moof") > 0) problems.emplace_back("it is fragmented: its moov does not list all samples");
  if (!inspection.video) {
    problems.emplace_back("there is no video track");
    return;
  }
  if (inspection.video->missingSamples > 0) {
    problems.push_back(
        fmt::format("{} video samples end behind the end of the file", inspection.video->missingSamples));
  }
  if (inspection.video->problem) problems.push_back("sample table: " + *inspection.video->problem);
  for (const SampleEntryFacts& entry : inspection.video->entries) {
    std::ranges::move(problemsOfEntry(entry), std::back_inserter(problems));
  }
  const auto& bitstream = inspection.video->bitstream;
  if (bitstream && bitstream->problem) problems.push_back("bitstream: " + *bitstream->problem);
}

}  // namespace

Inspection inspect(FileManager& files, const Path& path) {
  Inspection inspection;
  inspection.file = path;
  auto file = files.open(path, OpenMode::reading);
  readTopLevel(*file, inspection);
  inspection.tracks = readTracks(*file);
  inspection.video = readVideo(*file);
  listProblems(inspection);
  forecastRepair(files, inspection);
  return inspection;
}

}  // namespace tarn

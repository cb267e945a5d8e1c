#include <fmt/format.h>
#include <tarn/inspect.h>

#include "api/detail/DefaultLog.h"
#include "inspect/Inspection.h"
#include "inspect/InspectionJSON.h"
#include "inspect/InspectionPlot.h"
#include "inspect/InspectionText.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

FileInspection::Track trackOf(const TrackFacts& facts) {
  FileInspection::Track track{.id = facts.id,
                              .handler = facts.handler,
                              .codec = facts.codec,
                              .timescale = facts.timescale,
                              .duration = facts.duration,
                              .samples = facts.samples,
                              .channels = facts.channels,
                              .rate = facts.rate};
  if (facts.picture) {
    track.width = facts.picture->width;
    track.height = facts.picture->height;
  }
  return track;
}

}  // namespace

FileInspection inspectFile(const std::filesystem::path& file) {
  dropLogByDefault();
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(file, ignored)) {
    throw Error("Inspect", -1,
                fmt::format("{} is not a file that can be inspected; give the path of a video.", file.string()));
  }
  const Path path = absolutePath(file);
  PosixFileManager files(path.parent_path());  // of which nothing is used but that it opens files
  const Inspection inspection = inspect(files, path);
  FileInspection result{.file = path,
                        .size = inspection.size,
                        .verdict = inspection.verdict.kind,
                        .verdictText = inspection.verdict.text,
                        .tracks = {},
                        .problems = {},
                        .changesFile = inspection.changesFile,
                        .warnings = inspection.warnings,
                        .harms = inspection.harms,
                        .summary = inspection.summary,
                        .brief = inspectionBrief(inspection),
                        .text = inspectionText(inspection),
                        .json = inspectionJSON(inspection),
                        .plot = inspectionPlot(inspection)};
  for (const TrackFacts& facts : inspection.tracks) result.tracks.push_back(trackOf(facts));
  for (const Problem& problem : inspection.problems) {
    result.problems.push_back({problem.words, isMended(problem, inspection)});
  }
  return result;
}

}  // namespace tarn

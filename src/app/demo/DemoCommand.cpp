#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>

#include "app/Output.h"
#include "app/SaveCommand.h"
#include "app/demo/BeatMeter.h"
#include "app/demo/DamagedClip.h"
#include "app/demo/LoopbackServer.h"
#include "engine/Home.h"
#include "inspect/Inspection.h"
#include "inspect/SoundText.h"
#include "platform/Error.h"
#include "platform/host/AsioDispatch.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"

namespace tarn {
namespace {

constexpr const char* album = "Demo";
constexpr const char* filename = "recording.mp4";

/// The first second is the decoder's, and the one with the hole has no whole beep.
constexpr int shownSeconds[] = {2, clipHoleSecond - 2, clipHoleSecond + 2, clipSeconds - 2};

Path lastSavedFile(FileManager& files, const Path& home) {
  AsioDispatch dispatch;
  SQLitePhotoLibrary photos(files, dispatch, home / "Photos", SQLitePhotoLibrary::Access::readOnly);
  auto albums = photos.fetchAssetCollections(album);
  if (albums.empty()) throw Error("Demo", -1, "the album is missing");
  auto assets = photos.fetchAssets(albums.front(), std::nullopt);
  if (assets.empty()) throw Error("Demo", -1, "the album is empty");
  return assets.back().path;
}

void describe(const char* when, const Inspection& inspection) {
  printLine(fmt::format("\n{}: {}, {} bytes", when, inspection.file.string(), inspection.size));
  for (const Problem& problem : inspection.problems) printLine("  problem: " + problem.words);
  if (inspection.problems.empty()) printLine("  problem: none");
  if (!inspection.audio.findings) return;
  const auto lines = soundLines(inspection.audio);
  for (auto line = lines.begin() + 1; line != lines.end(); ++line) printLine("  sound:   " + *line);
}

void tellWhatWasDone(const Inspection& source) {
  printLine("\nwhat was done:");
  printLine("  picture: " + source.remux.reason);
  printLine(fmt::format("  sound:   {}: {}", audioStepText(source.audio), source.audio.reason));
  printLine("  sync:    " + source.syncFix.reason);
}

std::string distance(const std::vector<Beat>& beats, int second) {
  const auto beat = std::ranges::find_if(beats, [&](const Beat& b) { return std::abs(b.flash - second) < 0.3; });
  if (beat == beats.end() || !beat->beepAfter) return "none";
  return fmt::format("{:+.0f} ms", *beat->beepAfter * 1000);
}

/// How far each beep is from its flash, by both ways of listening: in a repaired file they agree. The source's pictures
/// cannot be decoded; they are those of the saved file.
void tableOfBeats(FileManager& files, const Path& before, const Path& after, const Path& scratch) {
  struct Row {
    const char* name;
    const Path& clip;
    Listening listening;
  };
  const Row rows[] = {{"before, by timestamps", before, Listening::byTimestamps},
                      {"before, packets in a row", before, Listening::packetsInARow},
                      {"after, by timestamps", after, Listening::byTimestamps},
                      {"after, packets in a row", after, Listening::packetsInARow}};
  std::string head = fmt::format("\n{:<34}", "the beep comes after its flash by");
  for (int second : shownSeconds) head += fmt::format("{:>10}", fmt::format("at {} s", second));
  printLine(head);
  const std::vector<double> flashes = flashTimes(files, after, scratch);
  for (const Row& row : rows) {
    const auto beats = measureBeats(files, row.clip, flashes, row.listening, scratch);
    std::string line = fmt::format("  {:<32}", row.name);
    for (int second : shownSeconds) line += fmt::format("{:>10}", distance(beats, second));
    printLine(line);
  }
}

int demoCommand(const GlobalOptions& global) {
  GlobalOptions options = global;
  const Path place = std::filesystem::temp_directory_path() / ("tarn-demo-" + makeUUID());
  PosixFileManager files(place);
  files.createDirectory(place / "source");
  if (!options.home) options.home = (place / "home").string();
  const Path source = place / "source" / filename;

  printLine("Making a damaged recording with ffmpeg ...");
  makeDamagedClip(files, source);
  LoopbackServer server(place / "source");
  printLine("Saving " + server.url(filename));
  const int code = saveCommand(options, {.url = server.url(filename), .album = album, .filename = filename});
  if (code != ExitCode::done) return code;

  const Path saved = lastSavedFile(files, homeDirectory(options.home));
  const Inspection inspection = inspect(files, source);
  describe("before", inspection);
  tellWhatWasDone(inspection);
  describe("after", inspect(files, saved));
  tableOfBeats(files, source, saved, place);
  return ExitCode::done;
}

}  // namespace

void addDemoCommand(CommandTable& table) {
  CLI::App* demo = table.app.add_subcommand("demo", "Make a damaged recording, save it, and show what was repaired");
  demo->excludes(table.app.get_option("--json"));
  demo->callback([&table] { table.chosen = [&table] { return demoCommand(table.global); }; });
}

}  // namespace tarn

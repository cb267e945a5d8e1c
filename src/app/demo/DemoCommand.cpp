#include <fmt/format.h>
#include <tarn/engine.h>
#include <tarn/inspect.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <memory>

#include "app/Commands.h"
#include "app/Interrupt.h"
#include "app/Output.h"
#include "app/demo/BeatMeter.h"
#include "app/demo/DamagedClip.h"
#include "app/demo/FFmpeg.h"
#include "app/demo/KeptPictures.h"
#include "app/demo/LoopbackServer.h"
#include "platform/Error.h"
#include "platform/JSObject.h"
#include "platform/TempFile.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr const char* album = "Demo";
constexpr const char* filename = "recording.mp4";
constexpr const char* resultName = "tarn-demo.mp4";

/// Before the hole in the sound and after it. The first second is the decoder's.
constexpr int shownSeconds[] = {2, clipSeconds - 2};

/// The demo's own directory, which goes with it.
class DemoPlace {
 public:
  explicit DemoPlace(bool isKept) : path_(fs::temp_directory_path() / ("tarn-demo-" + makeUUID())), isKept_(isKept) {
    PosixFileManager(path_).createDirectory(path_ / "source");
  }
  ~DemoPlace() {
    if (!isKept_) remove();
  }
  DemoPlace(const DemoPlace&) = delete;
  DemoPlace& operator=(const DemoPlace&) = delete;

  const Path& path() const { return path_; }
  Path source() const { return path_ / "source" / filename; }
  void remove() const {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }

 private:
  const Path path_;
  const bool isKept_;
};

/// Saves the video at the URL, as `tarn save` does. Returns where it stands.
Path save(const Path& home, const std::string& url) {
  Engine engine({.home = home});
  engine.open();
  const int64_t id = engine.save({.url = url, .album = album, .filename = filename});
  while (const auto event = engine.nextEvent()) {
    if (event->name != "downloadComplete") continue;
    const auto data = JSObject::parse(event->data);
    if (data && valueAt<int64_t>(*data, "id", 0) == id) break;
  }
  engine.waitUntilGone(id);
  const Engine::Outcome outcome = engine.outcome(id);
  if (!outcome.assetId) throw Error("Demo", -1, outcome.failure.value_or("The recording was not saved"));
  const auto path = engine.assetPath(*outcome.assetId, album);
  if (!path) throw Error("Demo", -1, "The saved recording is not in its album");
  return *path;
}

void tellWhatWasDone(const FileInspection& before) {
  printLine("What was broken:");
  for (const std::string& words : before.summary.wrong) printLine("  - " + words);
  printLine("What was done:");
  for (const std::string& words : before.summary.done) printLine("  - " + words);
}

void printRow(const std::string& what, const std::string& before, const std::string& after) {
  printLine(fmt::format("  {:<38}{:<18}{}", what, before, after));
}

std::string verdictOn(const std::optional<DecodedPictures>& pictures) {
  return pictures ? fmt::format("{}, no complaint", pictures->count) : "none";
}

std::string timeOf(const std::optional<double>& seconds) {
  constexpr double nothing = 0.005;
  if (!seconds) return "not at all";
  if (std::abs(*seconds) < nothing) return "in time";
  return fmt::format("{:.2f} s {}", std::abs(*seconds), *seconds < 0 ? "early" : "late");
}

void prove(FileManager& files, const Path& before, const Path& after, const Path& scratch) {
  printLine(fmt::format("{:<40}{:<18}{}", "Proof, by another program's decoder:", "before", "after"));
  const auto pictures = decodePictures(files, after, scratch);
  if (!pictures) throw Error("Demo", -1, "The pictures of the result cannot be decoded");
  printRow("pictures that it shows", verdictOn(decodePictures(files, before, scratch)), verdictOn(pictures));
  for (int second : shownSeconds) {
    const auto flash =
        std::ranges::find_if(pictures->flashes, [&](double time) { return std::abs(time - second) < 0.3; });
    if (flash == pictures->flashes.end()) throw Error("Demo", -1, "A flash is missing in the result");
    printRow(fmt::format("the beep with the flash at {} s comes", second),
             timeOf(beepBehind(files, before, *flash, scratch)), timeOf(beepBehind(files, after, *flash, scratch)));
  }
  const KeptPictures kept = keptPictures(files, before, after);
  printLine(fmt::format("  coded pictures kept byte for byte: {} of {}", kept.kept, kept.all));
}

Path copied(FileManager& files, const Path& saved, const Path& place) {
  TempFile copy(files, hiddenSibling(place));
  files.copyItem(saved, copy.path());
  files.replaceItem(place, copy.path());
  copy.keep();
  return place;
}

/// The result leaves the demo's directory, since that goes, for the one in which the user is.
Path takenOut(FileManager& files, const Path& saved) {
  try {
    return copied(files, saved, fs::current_path() / resultName);
  } catch (const PosixError&) {
    return copied(files, saved, fs::temp_directory_path() / resultName);
  }
}

int demoCommand(const GlobalOptions& global, bool keepsAll) {
  const DemoPlace place(keepsAll);
  const InterruptWatcher watcher([&]() -> bool {
    endFFmpeg();
    if (!keepsAll) place.remove();
    ::_exit(ExitCode::interrupted);
  });
  PosixFileManager files(place.path());
  printLine(
      fmt::format("Making a recording of {} s with a flash and a beep each second, and breaking it ...", clipSeconds));
  makeDamagedClip(files, place.source());
  const LoopbackServer server(place.path() / "source");
  printLine(fmt::format("Fetching it from {} and repairing it ...", server.url(filename)));
  const Path saved = save(global.home ? Path(*global.home) : place.path() / "home", server.url(filename));

  tellWhatWasDone(inspectFile(place.source()));
  prove(files, place.source(), saved, place.path());
  const Path result = keepsAll || global.home ? saved : takenOut(files, saved);
  printLine("The repaired recording is " + result.string());
  printLine("Open it: xdg-open " + shellQuoted(result.native()));
  if (keepsAll) printLine("The broken one is " + place.source().string());
  return ExitCode::done;
}

}  // namespace

void addDemoCommand(CommandTable& table) {
  CLI::App* demo = table.app.add_subcommand(
      "demo", "Make a damaged recording, save it, and show what was repaired; the result is ./tarn-demo.mp4");
  demo->excludes(table.app.get_option("--json"));
  const auto keepsAll = std::make_shared<bool>(false);
  demo->add_flag("--keep", *keepsAll, "Keep the broken recording and all else in the temporary directory");
  demo->callback(
      [&table, keepsAll] { table.chosen = [&table, keepsAll] { return demoCommand(table.global, *keepsAll); }; });
}

}  // namespace tarn

#include <fmt/format.h>

#include "app/ChildProcess.h"
#include "app/Commands.h"
#include "app/Home.h"
#include "app/LoopbackServer.h"
#include "app/Output.h"
#include "platform/Error.h"
#include "platform/host/AsioDispatch.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "remux/MP4Remuxer.h"

namespace tarn {
namespace {

constexpr const char* album = "Demo";
constexpr const char* filename = "recording.mp4";

/// A recording as some encoders leave it: H.264 under the tag "avc3", which says that parameter sets come with the
/// pictures, although they stand in the sample entry.
void makeRecording(const Path& file) {
  const int code = runProgram({"ffmpeg", "-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                               "testsrc2=size=640x360:rate=30:duration=5", "-c:v", "libx264", "-pix_fmt", "yuv420p",
                               "-tag:v", "avc3", file.string()});
  if (code != 0) throw Error("Demo", code, fmt::format("ffmpeg could not make the recording (exit code {})", code));
}

void describeFile(FileManager& files, const std::string& when, const Path& file) {
  auto attributes = files.attributes(file);
  auto tag = MP4Remuxer::detectHEVCTag(files, file);
  printLine(fmt::format("{:<7} tag {}, {} bytes, {}", when, tag.value_or("unknown"), attributes ? attributes->size : 0,
                        file.string()));
}

Path lastSavedFile(FileManager& files, const Path& home) {
  AsioDispatch dispatch;
  SQLitePhotoLibrary photos(files, dispatch, home / "Photos", SQLitePhotoLibrary::Access::readOnly);
  auto albums = photos.fetchAssetCollections(album);
  if (albums.empty()) throw Error("Demo", -1, "the album is missing");
  auto assets = photos.fetchAssets(albums.front(), std::nullopt);
  if (assets.empty()) throw Error("Demo", -1, "the album is empty");
  return assets.back().path;
}

}  // namespace

int demoCommand(const GlobalOptions& global) {
  GlobalOptions options = global;
  const Path place = std::filesystem::temp_directory_path() / ("tarn-demo-" + makeUUID());
  PosixFileManager files(place);
  files.createDirectory(place / "source");
  if (!options.home) options.home = (place / "home").string();

  printLine("Making a recording with ffmpeg ...");
  makeRecording(place / "source" / filename);
  LoopbackServer server(place / "source");
  printLine("Saving " + server.url(filename));
  int code = saveCommand(options, {.url = server.url(filename), .album = album, .filename = filename});
  if (code != ExitCode::done) return code;
  describeFile(files, "before:", place / "source" / filename);
  describeFile(files, "after:", lastSavedFile(files, homeDirectory(options.home)));
  return ExitCode::done;
}

}  // namespace tarn

#include "download/FirstRecord.h"

#include "media/AVAsset.h"
#include "parameters/VideoCodec.h"
#include "platform/Error.h"
#include "platform/Log.h"
#include "presentation/Presentation.h"
#include "remux/MP4Remuxer.h"

namespace tarn {
namespace {

bool codecNeedsRemuxing(FileManager& files, const Path& path) {
  std::optional<std::string> tag;
  try {
    tag = MP4Remuxer::detectHEVCTag(files, path);
  } catch (const Error& error) {
    log("ERROR detecting video codec: {}", error.description());
    return false;
  }
  if (!tag) {
    logLine("WARNING: Could not detect video codec (detection failed or unsupported codec)");
    return false;
  }
  log("Detected video codec: {}", *tag);
  const VideoCodec* codec = codecOfTag(*tag);
  if (codec != nullptr) log("{} video detected - will remux to ensure complete parameter sets", codec->name);
  return codec != nullptr;
}

/// False too if the file cannot be read: the steps will say so.
bool mustStayAsItIs(FileManager& files, const Path& path) {
  try {
    return isFragmented(files, path);
  } catch (const PosixError& error) {
    log("ERROR looking for fragments: {}", error.description());
    return false;
  }
}

}  // namespace

ProcessingState makeFirstRecord(FileManager& files, const Clock& clock, int64_t id, const Path& path,
                                const DownloadRequest& request) {
  ProcessingState state{.downloadId = id,
                        .filename = request.filename.value_or(path.filename().string()),
                        .album = request.album,
                        .fileURL = path,
                        .lastUpdated = clock.now()};
  if (mustStayAsItIs(files, path)) {
    logLine("Fragmented movie detected - it is kept as it came");
    state.skipAVSync = true;
    return state;
  }
  state.needsRemuxing = codecNeedsRemuxing(files, path) && !request.skipVideoFix;
  log("needsRemuxing = {}", state.needsRemuxing);
  const bool skipsSound = request.skipVideoFix || request.skipAudioFix;
  state.needsAudioTranscode = !skipsSound && !AVAsset(files, path).tracks(AVMediaType::audio).empty();
  state.skipAVSync = skipsSound;
  return state;
}

}  // namespace tarn

#include "download/FirstRecord.h"

#include "media/AVAsset.h"
#include "parameters/VideoCodec.h"
#include "platform/Error.h"
#include "platform/Log.h"
#include "presentation/Presentation.h"
#include "remux/MP4Remuxer.h"

namespace tarn {
namespace {

bool codecNeedsRemuxing(FileManager& files, const Path& fileURL) {
  std::optional<std::string> tag;
  try {
    tag = MP4Remuxer::detectHEVCTag(files, fileURL);
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

/// False also where the file cannot be read: the steps will say so.
bool mustStayAsItIs(FileManager& files, const Path& fileURL) {
  try {
    return isFragmented(files, fileURL);
  } catch (const PosixError& error) {
    log("ERROR looking for fragments: {}", error.description());
    return false;
  }
}

}  // namespace

ProcessingState makeFirstRecord(FileManager& files, const Clock& clock, const PipelineEntry& entry) {
  ProcessingState state{.downloadId = entry.id,
                        .filename = entry.filename,
                        .album = entry.album,
                        .fileURL = entry.fileURL,
                        .lastUpdated = clock.now()};
  if (mustStayAsItIs(files, entry.fileURL)) {
    logLine("Fragmented movie detected - it is kept as it came");
    state.skipAVSync = true;
    return state;
  }
  state.needsRemuxing = codecNeedsRemuxing(files, entry.fileURL) && !entry.skipVideoFix;
  log("needsRemuxing = {}", state.needsRemuxing);
  const bool skipsSound = entry.skipVideoFix || entry.skipAudioFix;
  state.needsAudioTranscode = !skipsSound && !AVAsset(files, entry.fileURL).tracks(AVMediaType::audio).empty();
  state.skipAVSync = skipsSound;
  return state;
}

}  // namespace tarn

#include "download/FirstRecord.h"

#include "fragments/CutMovie.h"
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

/// The answer to a question about a file; false too if it cannot be read: the steps will say so.
bool isTrue(bool (*question)(FileManager& files, const Path& path), const char* subject, FileManager& files,
            const Path& path) {
  try {
    return question(files, path);
  } catch (const PosixError& error) {
    log("ERROR looking for {}: {}", subject, error.description());
    return false;
  }
}

bool isInFragments(FileManager& files, const Path& path) {
  return isTrue(isFragmented, "fragments", files, path);
}

bool hasBrokenOff(FileManager& files, const Path& path) {
  return isTrue(isCutOff, "the end of the movie", files, path);
}

}  // namespace

ProcessingState makeFirstRecord(FileManager& files, const Clock& clock, int64_t id, const Path& path,
                                const DownloadRequest& request) {
  const bool skipsSound = request.skipVideoFix || request.skipAudioFix;
  ProcessingState state{.downloadId = id,
                        .filename = request.filename.value_or(path.filename().string()),
                        .album = request.album,
                        .fileURL = path,
                        .lastUpdated = clock.now(),
                        .needsRemuxing = !request.skipVideoFix,
                        .needsAudioTranscode = !skipsSound,
                        .skipAVSync = skipsSound};
  if (state.needsRemuxing && isInFragments(files, path)) {
    logLine("Fragmented movie detected - it becomes a plain one first");
  } else if (state.needsRemuxing && hasBrokenOff(files, path)) {
    logLine("The end of the movie is missing - what is there becomes a whole one first");
  } else {
    deriveFlags(files, state);
  }
  log("needsRemuxing = {}", state.needsRemuxing);
  return state;
}

void deriveFlags(FileManager& files, ProcessingState& record) {
  const Path& path = record.fileURL;
  record.areFlagsFinal = true;
  if (isInFragments(files, path)) {
    logLine("The movie is in fragments - it is kept as it came");
    record.needsRemuxing = false;
    record.needsAudioTranscode = false;
    record.skipAVSync = true;
    return;
  }
  record.needsRemuxing = codecNeedsRemuxing(files, path) && record.needsRemuxing;
  record.needsAudioTranscode = record.needsAudioTranscode && !AVAsset(files, path).tracks(AVMediaType::audio).empty();
}

}  // namespace tarn

#include "audio/AudioTranscoder.h"
#include "audio/CompressedWalk.h"

namespace tarn {
namespace {

std::optional<AVAssetTrack> firstTrack(const AVAsset& asset, AVMediaType type) {
  auto tracks = asset.tracks(type);
  if (tracks.empty()) return std::nullopt;
  return std::move(tracks.front());
}

/// Time of the track's first sample; where it cannot be read, where the track starts by its edit list.
CMTime firstPTS(const AVAsset& asset, const std::optional<AVAssetTrack>& track) {
  if (!track) return CMTime::zero();
  try {
    CompressedWalk walk(asset, *track);
    if (walk.addOutput() && walk.start()) {
      const auto buffer = walk.next();
      if (buffer && isStated(buffer->presentationTimeStamp)) return buffer->presentationTimeStamp;
    }
  } catch (const Error&) {
    // The file cannot be opened.
  }
  return track->timeRange.start;
}

}  // namespace

AudioTranscoder::FirstPTS AudioTranscoder::getFirstPTSForTracks(const AVAsset& asset) {
  return {.video = firstPTS(asset, firstTrack(asset, AVMediaType::video)),
          .audio = firstPTS(asset, firstTrack(asset, AVMediaType::audio))};
}

CMTime AudioTranscoder::getVideoFirstPTS(FileManager& files, const Path& fileURL) {
  const AVAsset asset(files, fileURL);
  return firstPTS(asset, firstTrack(asset, AVMediaType::video));
}

}  // namespace tarn

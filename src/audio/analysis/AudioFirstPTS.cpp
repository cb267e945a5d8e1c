#include "audio/analysis/AudioFirstPTS.h"

#include <initializer_list>

#include "audio/analysis/CompressedWalk.h"
#include "platform/Error.h"

namespace tarn {
namespace {

using Outputs = std::vector<std::shared_ptr<AVAssetReaderTrackOutput>>;

void readFirst(const AVAsset& asset, const Outputs& outputs, std::vector<CMTime>& times) {
  AVAssetReader reader(asset);
  for (const auto& output : outputs) {
    if (output && reader.canAddOutput(*output)) reader.addOutput(output);
  }
  if (!reader.startReading()) return;
  for (size_t i = 0; i < outputs.size(); ++i) {
    const auto buffer = outputs[i] ? outputs[i]->copyNextSampleBuffer() : std::nullopt;
    if (buffer && isStated(buffer->presentationTimeStamp)) times[i] = buffer->presentationTimeStamp;
  }
  reader.cancelReading();
}

/// Time of the first sample of the first track of each type, all by one reader. Where it cannot be read, where the
/// track starts by its edit list; zero for a track that is missing.
std::vector<CMTime> firstPTS(const AVAsset& asset, std::initializer_list<AVMediaType> types) {
  std::vector<CMTime> times;
  Outputs outputs;
  for (AVMediaType type : types) {
    const auto tracks = asset.tracks(type);
    times.push_back(tracks.empty() ? CMTime::zero() : tracks.front().timeRange.start);
    outputs.push_back(tracks.empty() ? nullptr : std::make_shared<AVAssetReaderTrackOutput>(tracks.front()));
  }
  try {
    readFirst(asset, outputs, times);
  } catch (const Error&) {
    // The file cannot be opened.
  }
  return times;
}

}  // namespace

FirstPTS getFirstPTSForTracks(const AVAsset& asset) {
  const auto times = firstPTS(asset, {AVMediaType::video, AVMediaType::audio});
  return {.video = times[0], .audio = times[1]};
}

CMTime getVideoFirstPTS(FileManager& files, const Path& fileURL) {
  return firstPTS(AVAsset(files, fileURL), {AVMediaType::video}).front();
}

}  // namespace tarn

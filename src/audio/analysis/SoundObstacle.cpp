#include "audio/analysis/SoundObstacle.h"

#include <fmt/format.h>

#include <algorithm>

#include "media/PCMDecoding.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/Error.h"

namespace tarn {
namespace {

bool isIndexCut(const AVAsset& asset) {
  const auto file = asset.files().open(asset.url(), OpenMode::reading);
  const auto moov = MP4BoxUtils::findTopLevelBox(*file, "moov");
  return moov && moov->end() > file->seekToEnd();
}

}  // namespace

SoundOutlook outlookOnSoundRepair(const AVAsset& asset, const AVAssetTrack& audioTrack) {
  if (asset.tracks(AVMediaType::video).empty()) return {"there are no pictures beside it"};
  try {
    if (isIndexCut(asset)) return {"the end of the file's index (moov) is missing, so no track can be put into it"};
    const AVAssetTrack whole = asset.withoutEditList(audioTrack);
    const int64_t outside = asset.samplesOutsideFile(whole);
    if (outside > 0) return {fmt::format("{} of its packets do not lie in the file", outside)};
    const auto isUnknown = [](const auto& description) { return !canDecode(*description); };
    const auto unknown = std::ranges::find_if(whole.formatDescriptions, isUnknown);
    if (unknown != whole.formatDescriptions.end()) {
      return {fmt::format("its codec \"{}\" cannot be decoded", (*unknown)->codec)};
    }
    const int channels = decodedChannels(*asset.compressedSamples(whole));
    if (channels == 0) return {"its packets cannot be decoded"};
    return {std::nullopt, channels};
  } catch (const Error& failure) {
    return {failure.description()};
  }
}

}  // namespace tarn

#include "audio/FastPathActions.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

#include "media/CMFormatDescription.h"

namespace tarn {
namespace {

constexpr int64_t framesOfSilentPacket = 1024;

/// 0 unless it is a whole number.
int64_t ticksOfPacket(const AVAssetTrack& track) {
  if (track.formatDescriptions.empty()) return 0;
  const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(*track.formatDescriptions.front());
  if (stream == nullptr || stream->mFramesPerPacket != framesOfSilentPacket) return 0;
  const auto rate = static_cast<int64_t>(stream->mSampleRate);
  const int64_t scaled = framesOfSilentPacket * track.naturalTimeScale;
  return rate > 0 && scaled % rate == 0 ? scaled / rate : 0;
}

}  // namespace

std::optional<FastPathLayout> layOutForFastPath(const AVAsset& asset, const AVAssetTrack& audioTrack,
                                                std::span<const AudioGap> gaps) {
  FastPathLayout layout{.actions = {}, .packetTicks = ticksOfPacket(audioTrack)};
  const int64_t packet = layout.packetTicks;
  if (packet == 0) return std::nullopt;
  const auto samples = asset.compressedSamples(asset.withoutEditList(audioTrack));
  int64_t end = 0;  // of what is laid out so far
  for (auto gap = gaps.begin(); const auto buffer = samples->next(); end += packet) {
    int64_t late = buffer->presentationTimeStamp.value - end;
    if (gap != gaps.end() && gap->frameIndex == buffer->sampleIndex) {
      const int64_t silent = std::max<int64_t>((late + packet / 2) / packet, 0);
      layout.actions.push_back({AudioAction::Kind::insertSilence, buffer->sampleIndex, silent * packet,
                                fmt::format("gap of {:.0f} ms", gap->duration.seconds() * 1000)});
      end += silent * packet;
      late -= silent * packet;
      ++gap;
    }
    if (std::abs(late) > packet) return std::nullopt;
  }
  return layout;
}

}  // namespace tarn

#include "audio/fastpath/FastPathActions.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

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

std::optional<FastPathLayout> layOutForFastPath(const AVAsset& asset, const AVAssetTrack& audioTrack) {
  FastPathLayout layout{.actions = {}, .packetTicks = ticksOfPacket(audioTrack)};
  const int64_t packet = layout.packetTicks;
  if (packet == 0) return std::nullopt;
  const auto samples = asset.compressedSamples(asset.withoutEditList(audioTrack));
  int64_t end = 0;          // of what is laid out so far
  int64_t expectedEnd = 0;  // of the source's packet ahead
  while (const auto buffer = samples->next()) {
    const int64_t place = buffer->presentationTimeStamp.value;
    const int64_t gap = place - std::exchange(expectedEnd, place + packet);
    if (2 * gap >= packet) {
      const int64_t silent = std::max<int64_t>((place - end + packet / 2) / packet, 0);
      layout.actions.push_back({AudioAction::Kind::insertSilence, buffer->sampleIndex, silent * packet,
                                fmt::format("gap of {} ticks", gap)});
      end += silent * packet;
    }
    if (std::abs(place - end) > packet) return std::nullopt;
    end += packet;
  }
  return layout;
}

}  // namespace tarn

#include "Fuzzing.h"
#include "audio/AudioRepairDecision.h"
#include "audio/FastPathAudioBuilder.h"
#include "media/AVAsset.h"
#include "media/PCMDecoding.h"

using namespace tarn;

namespace {

constexpr int mostBuffers = 200;

/// Walks the compressed samples of a track and their bytes, then decodes it, a while each.
void read(const AVAsset& asset, const AVAssetTrack& track) {
  auto samples = asset.compressedSamples(track);
  for (int i = 0; i < mostBuffers; ++i) {
    const auto buffer = samples->next();
    if (!buffer) break;
    samples->data(buffer->sampleIndex);
  }
  if (track.formatDescriptions.empty() || !canDecode(*track.formatDescriptions.front())) return;
  for (bool keepsTimeline : {true, false}) {
    auto pcm = makePCMSource(asset.compressedSamples(track), track, {.keepsTimeline = keepsTimeline});
    for (int i = 0; i < mostBuffers && pcm->next(); ++i) {
    }
  }
}

}  // namespace

/// The input is a movie: its sound is analysed, decoded, and laid out anew.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Movie movie(ByteView(data, size));
  const AVAsset asset(movie.files, movie.path);
  const auto tracks = asset.tracks(AVMediaType::audio);
  const AudioFindings findings = decideAudioRepair(movie.files, movie.path);
  movie.survives([&] {
    const auto result = FastPathAudioBuilder(movie.files, movie.path, findings.config).build(findings.actions);
    FastPathAudioBuilder::validate(result);
  });
  for (const AVAssetTrack& track : tracks) {
    movie.survives([&] { read(asset, track); });
  }
  return 0;
}

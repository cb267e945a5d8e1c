#include "Fuzzing.h"
#include "audio/AudioRepairDecision.h"
#include "audio/FastPathAudioBuilder.h"
#include "media/AVAsset.h"
#include "media/PCMDecoding.h"

namespace tarn::fuzz {
namespace {

/// Walks the compressed samples of a track and their bytes, then decodes it, a while each.
void read(const AVAsset& asset, const AVAssetTrack& track) {
  constexpr int mostBuffers = 200;
  auto samples = asset.compressedSamples(track);
  for (int i = 0; i < mostBuffers; ++i) {
    const auto buffer = samples->next();
    if (!buffer) break;
    samples->data(buffer->sampleIndex);
  }
  if (track.formatDescriptions.empty() || !canDecode(*track.formatDescriptions.front())) return;
  for (bool keepsTimeline : {true, false}) {
    auto pcm = makePCMSource(asset.compressedSamples(track), track, {.keepsTimeline = keepsTimeline});
    for (int i = 0; i < mostBuffers && pcm->next(); ++i) continue;
  }
}

}  // namespace

/// The input is a movie: its sound is analysed, decoded, and laid out anew.
void run(Input input) {
  Movie movie(input.rest());
  const AVAsset asset(movie.files, movie.path);
  movie.survives([&] {
    const AudioFindings findings = decideAudioRepair(movie.files, movie.path);
    const auto result = FastPathAudioBuilder(movie.files, movie.path, findings.config).build(findings.actions);
    FastPathAudioBuilder::validate(result);
  });
  for (const AVAssetTrack& track : asset.tracks(AVMediaType::audio)) {
    movie.survives([&] { read(asset, track); });
  }
}

}  // namespace tarn::fuzz

#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "audio/analysis/AudioAnalysis.h"
#include "audio/transcode/TranscodeConfig.h"
#include "media/AVAsset.h"

namespace tarn {

/// What the first pass has found: where silence is to go in, what is to be cut, and where the output ends. Positions
/// are frames at the output rate; both lists are sorted by them.
struct TranscodePlan {
  bool keepsTimeline = false;  ///< the decoder must
  /// Length of the video track, whose timeline the plan follows; nothing if the plan was made by the audio alone.
  std::optional<double> videoSeconds = {};
  std::vector<AudioGap> gaps = {};
  std::vector<AudioOverlap> overlaps = {};
  CMTime firstPTS = CMTime::zero();
  double sourceSeconds = 0;        ///< length of the audio by its packets
  std::optional<double> cap = {};  ///< where the output ends at the latest, in seconds
  int64_t expectedSamples = 0;
  int64_t largestPad = 4096;  ///< frames; of a larger number that is missing at the end none is made up for
};

/// Reads the compressed samples of the tracks; without a video track, or where that cannot be analysed, of the audio
/// alone. Leaves `expectedSamples` to expectedOutputSamples. Throws AudioTranscoderError.
TranscodePlan analyzeTimelines(const AVAsset& asset, const AVAssetTrack& audioTrack, const SourceTiming& timing,
                               const TranscodeConfig& config);

/// The plan for the media of a track without edit list, up to `shownMediaEnd` in seconds.
TranscodePlan planWholeMedia(const AVAssetTrack& audioTrack, double shownMediaEnd, const TranscodeConfig& config);

/// The frames that the output should have.
int64_t expectedOutputSamples(const TranscodePlan& plan, double sampleRate);

}  // namespace tarn

#pragma once

#include <functional>
#include <optional>
#include <string>

namespace tarn {

/// How a track is made anew.
struct TranscodeConfig {
  double sampleRate = 48000;          ///< of the decoded audio and of the encoder, in Hz
  int channels = 2;                   ///< the source decides: 2 for more than one channel, else 1
  int bitRate = 128000;               ///< bits per second
  double padDropThresholdMs = 2.0;    ///< from where on a gap or an overlap counts if there is no video
  int maxSilenceChunkFrames = 48000;  ///< largest silent buffer, in frames
  double fadeDurationMs = 30.0;       ///< of fades and ramps
  bool enableFadeSmoothing = true;    ///< fade around inserted silence and cuts
  bool useComfortNoise = true;        ///< silence carries low noise instead of zeros
  double comfortNoiseLevel = 0.001;   ///< of full scale
  unsigned workers = 0;               ///< threads that encode; 0: as many as cores, at most 4
};

/// What the source's edit lists say, in seconds; the transcoder reads a file that has lost them.
struct SourceTiming {
  double audioEmptyEditDelay = 0;                        ///< the empty edit before the audio
  std::optional<double> audioMediaDurationSeconds = {};  ///< the length that the edit list gives
  double syncOffsetSeconds = 0;                          ///< positive when the audio is delayed
};

using TranscodeProgress = std::function<void(double progress, const std::string& stage)>;

}  // namespace tarn

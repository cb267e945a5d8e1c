#pragma once

#include <cstdint>
#include <optional>

#include "audio/transcode/FrameCounts.h"
#include "audio/transcode/TranscodeConfig.h"
#include "media/AVAudioPCMBuffer.h"
#include "media/CMTime.h"

namespace tarn {

/// A decoded buffer that is held back until the next one has come, as a gap before that changes how this one ends.
struct PendingAudioBuffer {
  AVAudioPCMBuffer pcmBuffer;
  CMTime outputPTS;            ///< its time in the source, counted from the first; for the log only
  int64_t originalLength = 0;  ///< frames, as decoded
};

/// How far the second pass has come. Frames are those of the output rate.
struct AudioTranscodingState {
  explicit AudioTranscodingState(const TranscodeConfig& configuration)
      : config(configuration),
        fadeLengthFrames(wholeFrames(configuration.sampleRate * configuration.fadeDurationMs / 1000)) {}

  TranscodeConfig config;
  int64_t fadeLengthFrames;

  int64_t samplesProcessed = 0;       ///< frames that went to the writer, of the source and of silence
  int64_t buffersProcessed = 0;       ///< decoded buffers dealt with
  int64_t silenceInserted = 0;        ///< frames of silence that went to the writer
  int64_t framesDropped = 0;          ///< frames cut off for overlaps
  CMTime outputPTS = CMTime::zero();  ///< where the next buffer goes
  int64_t decodedSampleCount = 0;     ///< frames decoded: the position in the source
  int64_t gapsDetected = 0;           ///< gaps dealt with
  int64_t overlapsDetected = 0;       ///< overlaps cut
  std::optional<PendingAudioBuffer> pendingBuffer;
  bool currentBufferNeedsFadeIn = false;  ///< the next buffer to be held back comes after silence

  double outputSeconds() const { return outputPTS.seconds(); }
};

}  // namespace tarn

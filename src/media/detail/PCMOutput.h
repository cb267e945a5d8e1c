#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "media/CMFormatDescription.h"
#include "media/CMSampleBuffer.h"
#include "platform/Bytes.h"

namespace tarn {

/// Collects PCM and silence on a timeline and cuts them into buffers of 8192 frames. Positions are in frames of the
/// output, 0 at the start of the timeline. Some of what came last is held back, so that it can still be faded or cut.
class PCMOutput {
 public:
  PCMOutput(int32_t sampleRate, uint32_t channels);

  int32_t sampleRate() const { return sampleRate_; }
  int channels() const { return static_cast<int>(channels_); }

  /// Where the next frame goes.
  int64_t end() const { return end_; }

  /// Room for this many frames after the last, and how many of them count. The room is valid until the next call.
  uint8_t* room(int frames);
  void advance(int frames);

  /// Ends the buffer in work, and goes on at another position.
  void continueAt(int64_t position);

  /// Ends the buffer in work: what came last fades out, what comes next fades in.
  void breakOff();

  void appendSilence(int64_t frames);

  /// Takes back this many of the last frames, or those of them that are still held back.
  void takeBack(int64_t frames);

  /// Lets go of all.
  void finish() { cut(frames()); }

  /// The next whole buffer.
  std::optional<CMSampleBuffer> next();

 private:
  /// PCM, or silence if there is no data.
  struct Run {
    int64_t start;
    int64_t frames;
    CMBlockBufferPointer data;
  };

  int64_t frames() const { return static_cast<int64_t>(size_ / frameBytes_); }
  /// At least as long as a packet: AAC with SBR at 8 kHz has the longest.
  int64_t heldBack() const { return sampleRate_ * 3 / 10; }
  int64_t fadeLength() const { return sampleRate_ / 200; }
  /// Lets go of this many of the first frames, in buffers.
  void cut(int64_t frames);
  void cutBuffer(int64_t frames);
  /// Multiplies the sample values of the frame that begins at this byte.
  void scaleFrame(size_t at, double gain);

  int32_t sampleRate_;
  uint32_t channels_;
  size_t frameBytes_;
  CMFormatDescriptionPointer format_;
  CMBlockBufferPointer silence_;  ///< a whole buffer's

  Bytes pcm_;  ///< of which the first `size_` bytes count
  size_t size_ = 0;
  int64_t end_ = 0;
  int64_t fadedIn_;  ///< frames since a break, up to the length of a fade
  std::deque<Run> ready_;
};

}  // namespace tarn

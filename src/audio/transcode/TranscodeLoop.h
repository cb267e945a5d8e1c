#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "audio/AudioNormalizer.h"
#include "audio/AudioTranscoderState.h"
#include "audio/transcode/TranscodeConfig.h"
#include "audio/transcode/TranscodePlan.h"
#include "media/CMSampleBuffer.h"

namespace tarn {

/// Takes the PCM of the output, in its order.
class PCMSink {
 public:
  virtual ~PCMSink() = default;
  /// May wait. What it throws ends the transcoding.
  virtual void append(const CMSampleBuffer& buffer) = 0;
};

/// The second pass between decoder and encoder: decoded buffers go in, and what comes out has the plan's silences put
/// in and its overlaps cut, and ends at the cap. The output runs without a break from time zero: a buffer starts where
/// the one before ended, whatever its time in the source. One buffer is always held back, as a gap before the next
/// one fades it out. Serves one thread; the references must outlive it.
class TranscodeLoop {
 public:
  TranscodeLoop(const TranscodePlan& plan, const TranscodeConfig& config, const AudioNormalizer& normalizer,
                PCMSink& sink);

  /// The next decoded buffer. One that holds no PCM is skipped.
  void process(const CMSampleBuffer& decoded);

  /// True once nothing more can come out: what else is decoded would be dropped.
  bool capReached() const { return capReached_; }

  /// After the last decoded buffer: writes the one held back, and a short pad where frames are missing at the end.
  void finish();

  const AudioTranscodingState& state() const { return state_; }

 private:
  /// The part of the plan that concerns one buffer.
  struct Entries {
    int64_t gaps = 0;
    double gapSeconds = 0;
    int64_t overlaps = 0;
    int64_t framesToDrop = 0;
  };

  CMTime rebased(const CMTime& sourcePTS) const;
  Entries takeEntries(int64_t frames);
  int16_t settlePending(const Entries& entries);
  int64_t framesUnderCap() const;
  bool fitUnderCap(AVAudioPCMBuffer& buffer, const char* name);
  void cutOverlap(AVAudioPCMBuffer& buffer, const Entries& entries);
  void insertSilence(const Entries& entries, int16_t lastValue, int16_t nextValue);
  int64_t limitedSilence(int64_t frames);
  void writeShapedSilence(int64_t frames, int16_t lastValue, int16_t nextValue);
  void store(PendingAudioBuffer buffer, const CMTime& sourcePTS);
  void emit(AVAudioPCMBuffer buffer);
  void write(const std::optional<CMSampleBuffer>& buffer, int64_t frames, bool isSilence);
  void writeLast();
  void padEnd();
  void fadeOutIfSmoothing(AVAudioPCMBuffer& buffer);
  bool logsThisBuffer() const;

  const TranscodePlan& plan_;
  const AudioNormalizer& normalizer_;
  PCMSink& sink_;
  AudioTranscodingState state_;
  CMTime epochOffset_;
  size_t nextGap_ = 0;
  size_t nextOverlap_ = 0;
  bool capReached_ = false;
};

}  // namespace tarn

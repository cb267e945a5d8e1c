#include "audio/transcode/TranscodeLoop.h"

#include <algorithm>
#include <compare>
#include <utility>

#include "audio/CMSampleBufferHelpers.h"
#include "audio/transcode/AudioFades.h"
#include "audio/transcode/PCMBufferPool.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr int64_t buffersLoggedInFull = 20;
constexpr int64_t buffersBetweenLogs = 100;
constexpr int64_t regressionsLoggedInFull = 10;
constexpr double regressionAlwaysLogged = 0.1;  // seconds

/// The first channel of one of the buffer's frames.
int16_t sampleAt(const AVAudioPCMBuffer& buffer, uint32_t frame) {
  return buffer.int16ChannelData()[size_t{frame} * buffer.format().channelCount];
}

}  // namespace

TranscodeLoop::TranscodeLoop(const TranscodePlan& plan, const TranscodeConfig& config,
                             const AudioNormalizer& normalizer, PCMSink& sink)
    : plan_(plan), normalizer_(normalizer), sink_(sink), state_(config), epochOffset_(CMTime::zero() - plan.firstPTS) {
  log("AudioTranscoder: Epoch offset for rebasing: {:.3f}s", epochOffset_.seconds());
}

void TranscodeLoop::process(const CMSampleBuffer& decoded) {
  auto pcm = toAVAudioPCMBuffer(decoded, normalizer_.pcmFormat());
  if (!pcm) return;
  const int64_t frames = pcm->frameLength();
  PendingAudioBuffer current{std::move(*pcm), rebased(decoded.presentationTimeStamp), frames};
  const Entries entries = takeEntries(frames);

  const int16_t lastValue = state_.pendingBuffer ? settlePending(entries) : int16_t{0};
  if (capReached_) return;  // the output ends with what was written last
  if (entries.gaps > 0) {
    insertSilence(entries, lastValue, sampleAt(current.pcmBuffer, 0));
  } else {
    cutOverlap(current.pcmBuffer, entries);
  }
  store(std::move(current), decoded.presentationTimeStamp);
}

CMTime TranscodeLoop::rebased(const CMTime& sourcePTS) const {
  if (!sourcePTS.isValid() || sourcePTS.isIndefinite()) {
    log("AudioTranscoder: Invalid source PTS for buffer #{}, using accumulated outputPTS", state_.buffersProcessed + 1);
    return state_.outputPTS;
  }
  const CMTime pts = sourcePTS + epochOffset_;
  if (std::is_gteq(compare(pts, state_.outputPTS))) return pts;
  const double behind = state_.outputSeconds() - pts.seconds();
  if (state_.buffersProcessed < regressionsLoggedInFull || behind > regressionAlwaysLogged) {
    log("AudioTranscoder: PTS regression detected - rebasedPts={:.3f}s < outputPTS={:.3f}s, using outputPTS",
        pts.seconds(), state_.outputSeconds());
  }
  return state_.outputPTS;
}

/// An entry belongs to the first buffer that reaches past its place. Of several overlaps in one buffer the first
/// counts.
TranscodeLoop::Entries TranscodeLoop::takeEntries(int64_t frames) {
  state_.decodedSampleCount += frames;
  const int64_t end = state_.decodedSampleCount;
  Entries taken;
  for (; nextGap_ < plan_.gaps.size() && plan_.gaps[nextGap_].sampleOffset < end; ++nextGap_) {
    ++taken.gaps;
    taken.gapSeconds += plan_.gaps[nextGap_].duration.seconds();
  }
  for (; nextOverlap_ < plan_.overlaps.size() && plan_.overlaps[nextOverlap_].sampleOffset < end; ++nextOverlap_) {
    if (taken.overlaps++ == 0) taken.framesToDrop = plan_.overlaps[nextOverlap_].framesToDrop;
  }
  return taken;
}

/// Writes the buffer held back, unless the cap is before it, and gives the value at which it ends.
int16_t TranscodeLoop::settlePending(const Entries& entries) {
  AVAudioPCMBuffer pending = std::exchange(state_.pendingBuffer, std::nullopt)->pcmBuffer;
  if (!fitUnderCap(pending, "pending")) return 0;
  if ((entries.gaps > 0 || entries.overlaps > 0) && !capReached_) fadeOutIfSmoothing(pending);
  const int16_t value = sampleAt(pending, pending.frameLength() - 1);
  emit(std::move(pending));
  return value;
}

/// How many frames fit between the end of the output and the cap, to the nearest.
int64_t TranscodeLoop::framesUnderCap() const {
  return nearestFrame(state_.config.sampleRate * (*plan_.cap - state_.outputSeconds()));
}

/// Cuts a buffer off at the cap; false if nothing of it is before the cap.
bool TranscodeLoop::fitUnderCap(AVAudioPCMBuffer& buffer, const char* name) {
  if (!plan_.cap) return true;
  const double cap = *plan_.cap;
  const double now = state_.outputSeconds();
  const int64_t frames = buffer.frameLength();
  if (now >= cap) {
    log("AudioTranscoder CAP: Skipping {} buffer (outputPTS={:.3f}s >= video duration {:.3f}s)", name, now, cap);
    capReached_ = true;
    return false;
  }
  const int64_t remaining = framesUnderCap();
  if (remaining >= frames) return true;
  capReached_ = true;
  if (remaining <= 1) {  // a single frame cannot fade
    log("AudioTranscoder CAP: Skipping {} buffer (remainingFrames=0, outputPTS={:.3f}s, cap={:.3f}s)", name, now, cap);
    return false;
  }
  log("AudioTranscoder CAP: Trimming {} buffer from {} to {} frames (outputPTS={:.3f}s, cap at {:.3f}s)", name, frames,
      remaining, now, cap);
  buffer.setFrameLength(static_cast<uint32_t>(remaining));
  fadeOutIfSmoothing(buffer);
  return true;
}

void TranscodeLoop::cutOverlap(AVAudioPCMBuffer& buffer, const Entries& entries) {
  const int64_t dropped = std::min<int64_t>(entries.framesToDrop, buffer.frameLength());
  if (dropped < 1) return;
  dropFramesFromHead(buffer, dropped);
  state_.framesDropped += dropped;
  state_.overlapsDetected += entries.overlaps;
  if (state_.config.enableFadeSmoothing) applyFadeIn(buffer, state_.fadeLengthFrames);
}

void TranscodeLoop::insertSilence(const Entries& entries, int16_t lastValue, int16_t nextValue) {
  const int64_t silence = limitedSilence(wholeFrames(state_.config.sampleRate * entries.gapSeconds));
  state_.gapsDetected += entries.gaps;
  if (silence < 1) return;
  writeShapedSilence(silence, lastValue, nextValue);
  state_.currentBufferNeedsFadeIn = state_.config.enableFadeSmoothing;
}

/// How much of a silence fits under the cap.
int64_t TranscodeLoop::limitedSilence(int64_t frames) {
  if (!plan_.cap) return frames;
  const int64_t room = std::max<int64_t>(framesUnderCap(), 0);
  if (room < 1) {
    log("AudioTranscoder CAP: At video duration, skipping silence insertion");
  } else if (room < frames) {
    log("AudioTranscoder CAP: Limiting silence from {} to {} frames (cap at video duration)", frames, room);
  } else {
    return frames;
  }
  capReached_ = true;
  return room;
}

/// The ramps are those of the whole silence: its inner chunks have none.
void TranscodeLoop::writeShapedSilence(int64_t frames, int16_t lastValue, int16_t nextValue) {
  const int64_t largest = std::max(state_.config.maxSilenceChunkFrames, 1);
  for (int64_t done = 0; done < frames;) {
    const int64_t chunk = std::min(largest, frames - done);
    const bool isFirst = done == 0;
    const bool isLast = done + chunk == frames;
    const SilenceShape shape{.rampFrames = isFirst || isLast ? state_.fadeLengthFrames : 0,
                             .useComfortNoise = state_.config.useComfortNoise,
                             .noiseLevel = state_.config.comfortNoiseLevel,
                             .lastSampleValue = isFirst ? lastValue : int16_t{0},
                             .nextSampleValue = isLast ? nextValue : int16_t{0}};
    write(makeShapedSilenceBuffer(chunk, shape, state_.outputPTS, normalizer_.formatDescription(),
                                  state_.config.channels, state_.config.sampleRate),
          chunk, true);
    done += chunk;
  }
}

void TranscodeLoop::store(PendingAudioBuffer buffer, const CMTime& sourcePTS) {
  ++state_.buffersProcessed;
  if (buffer.pcmBuffer.frameLength() == 0) return;
  if (std::exchange(state_.currentBufferNeedsFadeIn, false)) applyFadeIn(buffer.pcmBuffer, state_.fadeLengthFrames);
  if (logsThisBuffer()) {
    log("AudioTranscoder PTS-FIX: STORE pending #{} - srcPTS={:.3f}s -> rebasedPTS={:.3f}s, outputPTS={:.3f}s, "
        "length={}",
        state_.buffersProcessed, sourcePTS.seconds(), buffer.outputPTS.seconds(), state_.outputSeconds(),
        buffer.originalLength);
  }
  state_.pendingBuffer = std::move(buffer);
}

void TranscodeLoop::emit(AVAudioPCMBuffer buffer) {
  const int64_t frames = buffer.frameLength();
  const double start = state_.outputSeconds();
  write(pcmBufferToCMSampleBuffer(buffer, normalizer_.formatDescription(), state_.outputPTS, state_.config.sampleRate),
        frames, false);
  if (logsThisBuffer()) {
    log("AudioTranscoder PTS-FIX: EMIT pending #{} - writePTS={:.3f}s, dur={:.3f}s, outputPTS: {:.3f}s -> {:.3f}s",
        state_.buffersProcessed, start, static_cast<double>(frames) / state_.config.sampleRate, start,
        state_.outputSeconds());
  }
  PCMBufferPool::shared().returnBuffer(std::move(buffer));
}

/// A buffer that could not be made leaves its time empty, so that what follows keeps its place.
void TranscodeLoop::write(const std::optional<CMSampleBuffer>& buffer, int64_t frames, bool isSilence) {
  if (buffer) {
    sink_.append(*buffer);
    state_.samplesProcessed += frames;
    if (isSilence) state_.silenceInserted += frames;
  }
  state_.outputPTS = state_.outputPTS + CMTime::make(frames, frameTimescale(state_.config.sampleRate));
}

void TranscodeLoop::finish() {
  writeLast();
  log("AudioTranscoder: Pass 2 processed {}/{} gaps and {}/{} overlaps", state_.gapsDetected, plan_.gaps.size(),
      state_.overlapsDetected, plan_.overlaps.size());
  log("  Source samples read: {}, Next gap index: {}", state_.decodedSampleCount, nextGap_);
  for (size_t i = nextGap_; i < plan_.gaps.size(); ++i) {
    log("  Unprocessed gap at sampleOffset {} (frame {})", plan_.gaps[i].sampleOffset, plan_.gaps[i].frameIndex);
  }
  padEnd();
}

void TranscodeLoop::writeLast() {
  if (!state_.pendingBuffer) return;
  AVAudioPCMBuffer last = std::exchange(state_.pendingBuffer, std::nullopt)->pcmBuffer;
  if (fitUnderCap(last, "final")) emit(std::move(last));
}

void TranscodeLoop::padEnd() {
  if (plan_.cap && state_.outputSeconds() >= *plan_.cap) {
    log("AudioTranscoder CAP: Skipping trailing pad (already at video duration)");
    return;
  }
  if (plan_.expectedSamples <= 0) return;
  const int64_t deficit = plan_.expectedSamples - state_.samplesProcessed;
  const double seconds = static_cast<double>(deficit) / state_.config.sampleRate;
  if (deficit < 0) {
    log("AudioTranscoder: Output exceeds expected duration by {} samples", -deficit);
  } else if (deficit > plan_.largestPad) {
    log("AudioTranscoder: WARNING - Large trailing deficit {} samples ({:.3f}s), skipping", deficit, seconds);
  } else if (deficit > 0) {
    log("AudioTranscoder: Padding trailing silence: {} samples ({:.3f}s)", deficit, seconds);
    const int64_t largest = std::max(state_.config.maxSilenceChunkFrames, 1);
    for (int64_t left = deficit; left > 0; left -= std::min(largest, left)) {
      const int64_t chunk = std::min(largest, left);
      write(makeSilenceSampleBuffer(chunk, state_.outputPTS, normalizer_.formatDescription(), state_.config.channels,
                                    state_.config.sampleRate),
            chunk, true);
    }
  }
}

void TranscodeLoop::fadeOutIfSmoothing(AVAudioPCMBuffer& buffer) {
  if (state_.config.enableFadeSmoothing) applyFadeOut(buffer, state_.fadeLengthFrames);
}

bool TranscodeLoop::logsThisBuffer() const {
  return state_.buffersProcessed <= buffersLoggedInFull || state_.buffersProcessed % buffersBetweenLogs == 0;
}

}  // namespace tarn

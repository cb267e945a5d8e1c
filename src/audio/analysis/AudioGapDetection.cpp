#include "audio/analysis/AudioGapDetection.h"

#include <cmath>

#include "audio/AudioTranscoderError.h"
#include "audio/analysis/AudioFormatFacts.h"
#include "audio/analysis/CompressedWalk.h"
#include "audio/analysis/TimelineGaps.h"
#include "audio/transcode/FrameCounts.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr size_t usualBufferCount = 200000;

/// Finds gaps and overlaps of an audio track that no video stands beside.
class GapDetector {
 public:
  GapDetector(double rate, int samplesPerFrame, double sampleRate, double gapThresholdMs)
      : frameDuration_(samplesPerFrame / rate), sampleRate_(sampleRate), threshold_(gapThresholdMs / 1000) {
    result_.aacSamplesPerFrame = samplesPerFrame;
    result_.ptsMap.offsets.reserve(usualBufferCount);
    result_.ptsMap.times.reserve(usualBufferCount);
  }

  void take(const CMSampleBuffer& buffer) {
    const CMTime pts = buffer.presentationTimeStamp;
    result_.ptsMap.offsets.push_back(result_.totalSampleCount);
    result_.ptsMap.times.push_back(pts);
    const int64_t frames = buffer.numSamples * result_.aacSamplesPerFrame;
    if (index_ == 0) {
      result_.firstCompressedPTS = pts;
      expected_ = pts.seconds();
      log("  First compressed audio PTS: {:.6f}s", expected_);
    }
    const bool hasGap = compareWithClock(pts);
    if (index_ > 0) compareWithPrevious(pts, hasGap);
    previousEnd_ = endOf(buffer, frames, sampleRate_);
    expected_ += frameDuration_ * static_cast<double>(buffer.numSamples);
    result_.totalSampleCount += frames;
    ++index_;
  }

  /// Holds the end of the last buffer against the length that the track claims.
  void compareWithTrack(const CMTime& trackDuration) {
    if (index_ == 0) return;
    const double end = previousEnd_.seconds(), claimed = trackDuration.seconds();
    const double cumulative = end - claimed;
    log("AudioTranscoder: Drift check - expected end: {:.3f}s, track duration: {:.3f}s, cumulative drift: {:.1f}ms",
        end, claimed, cumulative * 1000);
    if (!(std::abs(cumulative) * 1000 > 10.0)) return;
    log("AudioTranscoder: WARNING - Significant cumulative drift detected: {:.1f}ms", cumulative * 1000);
    if (cumulative > 0) {
      result_.gaps.push_back({trackDuration, CMTime::makeWithSeconds(cumulative), index_, result_.totalSampleCount});
      logLine("AudioTranscoder: Added synthetic gap for cumulative drift");
    } else {
      result_.overlaps.push_back(
          {trackDuration, wholeFrames(-cumulative * sampleRate_), index_, result_.totalSampleCount});
      logLine("AudioTranscoder: Added synthetic overlap for cumulative drift");
    }
  }

  GapDetectionResult& result() { return result_; }

 private:
  bool compareWithClock(const CMTime& pts) {
    const double drift = pts.seconds() - expected_;
    const double step = drift - previousDrift_;
    previousDrift_ = drift;
    if (!(step > driftStepSeconds)) return false;
    result_.gaps.push_back(
        {CMTime::makeWithSeconds(expected_), CMTime::makeWithSeconds(step), index_, result_.totalSampleCount});
    return true;
  }

  void compareWithPrevious(const CMTime& pts, bool hasGap) {
    const CMTime jump = pts - previousEnd_;
    const double delta = jump.seconds();
    if (delta > threshold_) {
      if (!hasGap) result_.gaps.push_back({previousEnd_, jump, index_, result_.totalSampleCount});
    } else if (delta < -threshold_) {
      const auto frames = wholeFrames(-delta * sampleRate_);
      result_.overlaps.push_back({pts, frames, index_, result_.totalSampleCount});
      log("  Overlap at {:.3f}s: {:.3f}s ({} frames to drop)", pts.seconds(), -delta, frames);
    }
  }

  const double frameDuration_;  // of a packet, in seconds
  const double sampleRate_;
  const double threshold_;  // seconds
  GapDetectionResult result_;
  int64_t index_ = 0;
  double expected_ = 0;
  double previousDrift_ = 0;
  CMTime previousEnd_;
};

void measureLength(GapDetectionResult& result, const CMTime& trackDuration, double rate) {
  const double samples = static_cast<double>(result.totalSampleCount) / rate;
  result.containerDurationSeconds = trackDuration.seconds();
  result.sampleBasedDriftMs = std::abs(result.containerDurationSeconds - samples) * 1000;
  logLine("AudioTranscoder: Sample-based duration check:");
  log("  Actual output sample rate: {:.0f} Hz (from format description)", rate);
  log("  Expected from samples: {:.3f} s ({} samples / {:.0f} Hz)", samples, result.totalSampleCount, rate);
  log("  Container duration: {:.3f}s", result.containerDurationSeconds);
  log("  Sample-based drift: {:.1f}ms", result.sampleBasedDriftMs);
  if (result.sampleBasedDriftMs > 500.0) {
    logLine("AudioTranscoder: WARNING - Container duration doesn't match sample count!");
    logLine("  This indicates variable frame timing that will cause iOS AV desync.");
    logLine("  Re-encoding will normalize the audio timeline.");
  }
}

CompressedWalk openWalk(const AVAsset& asset, const AVAssetTrack& track) {
  try {
    return {asset, track};
  } catch (const Error& failure) {
    throw AudioTranscoderError::assetReadFailed("Gap detection reader: " + failure.description());
  }
}

}  // namespace

GapDetectionResult detectAudioGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, double sampleRate,
                                   double gapThresholdMs) {
  const int samplesPerFrame = detectAACFrameSize(audioTrack);
  CompressedWalk walk = openWalk(asset, audioTrack);
  if (!walk.addOutput()) {
    throw AudioTranscoderError::assetReadFailed("Cannot add compressed output for gap detection");
  }
  if (!walk.start()) throw AudioTranscoderError::assetReadFailed("Gap detection failed to start: " + walk.failure());
  const double rate = detectActualSampleRate(audioTrack);
  GapDetector detector(rate, samplesPerFrame, sampleRate, gapThresholdMs);
  for (auto buffer = walk.next(); buffer; buffer = walk.next()) detector.take(*buffer);
  walk.cancel();
  GapDetectionResult& result = detector.result();
  log("AudioTranscoder: Pass 1 counted {} AAC frames × {} = {} PCM samples", result.totalSampleCount / samplesPerFrame,
      samplesPerFrame, result.totalSampleCount);
  detector.compareWithTrack(audioTrack.timeRange.duration);
  measureLength(result, audioTrack.timeRange.duration, rate);
  return std::move(result);
}

}  // namespace tarn

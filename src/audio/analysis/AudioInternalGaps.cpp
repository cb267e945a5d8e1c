#include "audio/analysis/AudioInternalGaps.h"

#include <algorithm>
#include <cmath>

#include "audio/AudioTranscoderError.h"
#include "audio/analysis/AudioFirstPTS.h"
#include "audio/analysis/AudioFormatFacts.h"
#include "audio/analysis/CompressedWalk.h"
#include "audio/transcode/FrameCounts.h"
#include "platform/Log.h"

namespace tarn {
namespace {

void classify(AudioAnalysisResult& result) {
  const double offset = std::abs(result.initialOffsetMs);
  if (result.internalGapCount > 0) {
    result.gapType = GapType::internalGaps;
  } else if (result.timelineDriftMs > harmlessDriftMs) {
    result.gapType = GapType::timelineDrift;
  } else if (result.startsApart()) {
    result.gapType = GapType::initialOffsetOnly;
  }
  result.needsTranscoding = result.gapType == GapType::internalGaps || result.gapType == GapType::timelineDrift;
  result.gapCount = result.internalGapCount + (offset > result.gapThresholdMs() ? 1 : 0);
  result.maxGapMs = std::max(result.maxInternalGapMs, offset);
  result.totalGapMs = offset + result.totalInternalGapMs;
}

void tell(const AudioAnalysisResult& result) {
  log("AudioTranscoder.analyzeAudioForProcessing: Classification = {}", text(result.gapType));
  log("  Initial offset: {:.1f}ms{}", result.initialOffsetMs,
      result.initialOffsetMs > 0   ? " (audio starts late)"
      : result.initialOffsetMs < 0 ? " (audio starts early)"
                                   : "");
  log("  Internal gaps: {} (max: {:.1f}ms)", result.internalGapCount, result.maxInternalGapMs);
  log("  Sample-based drift: {:.1f}ms", result.timelineDriftMs);
  log("  Needs transcoding: {}", result.needsTranscoding);
  if (result.timelineDriftMs > harmlessDriftMs && result.internalGapCount == 0) {
    logLine("  Note: Drift detected - video/audio timeline mismatch will be analyzed during transcoding");
  }
}

}  // namespace

void InternalGapResult::summarize(double rate) {
  gapCount = static_cast<int64_t>(gaps.size());
  for (const AudioGap& gap : gaps) {
    const double milliseconds = gap.duration.seconds() * 1000;
    maxGapMs = std::max(maxGapMs, milliseconds);
    totalGapMs += milliseconds;
  }
  overlapCount = static_cast<int64_t>(overlaps.size());
  for (const AudioOverlap& overlap : overlaps) {
    const double milliseconds = static_cast<double>(overlap.framesToDrop) / rate * 1000;
    maxOverlapMs = std::max(maxOverlapMs, milliseconds);
    totalOverlapMs += milliseconds;
  }
}

InternalGapResult detectInternalGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, AACType aacType,
                                     double gapThresholdMs) {
  std::optional<CompressedWalk> walk;
  try {
    walk.emplace(asset, audioTrack);
  } catch (const Error& failure) {
    throw AudioTranscoderError::assetReadFailed(failure.description());
  }
  if (!walk->addOutput()) {
    throw AudioTranscoderError::assetReadFailed("Cannot add output for internal gap detection");
  }
  if (!walk->start()) {
    throw AudioTranscoderError::assetReadFailed("Failed to start reading for internal gap detection");
  }
  const double threshold = gapThresholdMs / 1000;
  InternalGapResult result;
  int64_t total = 0;
  double seconds = 0, rate = 48000;
  CMTime expectedEnd;
  int64_t index = 0;
  for (auto buffer = walk->next(); buffer; buffer = walk->next(), ++index) {
    const CMTime pts = buffer->presentationTimeStamp;
    const PacketCount count = countSamples(*buffer, aacType);
    rate = count.rate;
    if (index > 0) {
      const CMTime jump = pts - expectedEnd;
      const double delta = jump.seconds();
      if (delta > threshold) {
        result.gaps.push_back({expectedEnd, jump, index, total});
      } else if (delta < -threshold) {
        result.overlaps.push_back({pts, wholeFrames(-delta * rate), index, total});
      }
    }
    total += count.samples;
    seconds += count.seconds();
    expectedEnd = endOf(*buffer, count.samples, rate);
  }
  walk->cancel();
  result.summarize(rate);
  result.sampleBasedDriftMs = std::abs(audioTrack.timeRange.duration.seconds() - seconds) * 1000;
  return result;
}

AudioAnalysisResult analyzeAudioForProcessing(const AVAsset& asset, const GapDetection& detectGaps) {
  AudioAnalysisResult result;
  const auto tracks = asset.tracks(AVMediaType::audio);
  if (tracks.empty()) {
    logLine("AudioTranscoder.analyzeAudioForProcessing: No audio track - skipping analysis");
    result.frameDurationMs = 21.33;
    return result;
  }
  const AVAssetTrack& audio = tracks.front();
  result.aacType = detectAACType(audio);
  result.frameDurationMs = result.aacType == AACType::aacLC ? 21.333333333333332 : 42.666666666666664;
  log("AudioTranscoder: Detected {}, gap threshold = {:.1f}ms", text(result.aacType), result.gapThresholdMs());
  const FirstPTS first = getFirstPTSForTracks(asset);
  InternalGapResult inside;
  try {
    inside = detectGaps(asset, audio, result.aacType, result.gapThresholdMs());
  } catch (const Error& failure) {
    log("AudioTranscoder.analyzeAudioForProcessing: Error - {}", failure.description());
    result.needsTranscoding = true;
    result.gapType = GapType::internalGaps;
    return result;
  }
  result.durationSeconds = asset.duration().seconds();
  result.initialOffsetMs = (first.audio.seconds() - first.video.seconds()) * 1000;
  result.internalGapCount = inside.gapCount;
  result.maxInternalGapMs = inside.maxGapMs;
  result.totalInternalGapMs = inside.totalGapMs;
  result.overlapCount = inside.overlapCount;
  result.maxOverlapMs = inside.maxOverlapMs;
  result.totalOverlapMs = inside.totalOverlapMs;
  result.timelineDriftMs = inside.sampleBasedDriftMs;
  result.internalGaps = std::move(inside.gaps);
  result.internalOverlaps = std::move(inside.overlaps);
  classify(result);
  tell(result);
  return result;
}

}  // namespace tarn

#include <algorithm>
#include <cmath>

#include "audio/AudioTranscoder.h"
#include "audio/CompressedWalk.h"
#include "audio/FrameCounts.h"
#include "platform/Log.h"

namespace tarn {
namespace {

void summarize(InternalGapResult& result, double rate) {
  result.gapCount = static_cast<int64_t>(result.gaps.size());
  for (const AudioGap& gap : result.gaps) {
    const double milliseconds = gap.duration.seconds() * 1000;
    result.maxGapMs = std::max(result.maxGapMs, milliseconds);
    result.totalGapMs += milliseconds;
  }
  result.overlapCount = static_cast<int64_t>(result.overlaps.size());
  for (const AudioOverlap& overlap : result.overlaps) {
    const double milliseconds = static_cast<double>(overlap.framesToDrop) / rate * 1000;
    result.maxOverlapMs = std::max(result.maxOverlapMs, milliseconds);
    result.totalOverlapMs += milliseconds;
  }
}

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

InternalGapResult AudioTranscoder::detectInternalGaps(const AVAsset& asset, const AVAssetTrack& audioTrack,
                                                      AACType aacType, double gapThresholdMs) {
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
  const int64_t samplesPerFrame = samplesPerPacket(aacType);
  const double rate = detectActualSampleRate(audioTrack);
  const double threshold = gapThresholdMs / 1000;
  InternalGapResult result;
  int64_t total = 0;
  CMTime expectedEnd;
  int64_t index = 0;
  for (auto buffer = walk->next(); buffer; buffer = walk->next(), ++index) {
    const CMTime pts = buffer->presentationTimeStamp;
    const int64_t frames = buffer->numSamples * samplesPerFrame;
    if (index > 0) {
      const CMTime jump = pts - expectedEnd;
      const double delta = jump.seconds();
      if (delta > threshold) {
        result.gaps.push_back({expectedEnd, jump, index, total});
      } else if (delta < -threshold) {
        result.overlaps.push_back({pts, wholeFrames(-delta * rate), index, total});
      }
    }
    total += frames;
    expectedEnd = endOf(*buffer, frames, rate);
  }
  walk->cancel();
  summarize(result, rate);
  result.sampleBasedDriftMs =
      std::abs(audioTrack.timeRange.duration.seconds() - static_cast<double>(total) / rate) * 1000;
  return result;
}

AudioAnalysisResult AudioTranscoder::analyzeAudioForProcessing(FileManager& files, const Path& fileURL) {
  return analyzeAudioForProcessing(AVAsset(files, fileURL));
}

AudioAnalysisResult AudioTranscoder::analyzeAudioForProcessing(const AVAsset& asset) {
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
    inside = detectInternalGaps(asset, audio, result.aacType, result.gapThresholdMs());
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
  classify(result);
  tell(result);
  return result;
}

}  // namespace tarn

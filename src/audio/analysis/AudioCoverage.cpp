#include "audio/analysis/AudioCoverage.h"

#include <cmath>
#include <compare>
#include <iterator>
#include <set>

#include "audio/AudioTranscoderError.h"
#include "audio/analysis/AudioFormatFacts.h"
#include "audio/analysis/CompressedWalk.h"
#include "audio/analysis/TimelineGaps.h"
#include "audio/analysis/VideoTimeline.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// Tells quickly whether one of many gaps starts near a time, so that a track of nothing but gaps takes no longer
/// than any other.
class GapStarts {
 public:
  void add(const CMTime& start) { starts_.insert(start); }

  bool hasNearer(const CMTime& time, double seconds) const {
    const auto isNearer = [&](auto start) { return std::abs((*start - time).seconds()) < seconds; };
    const auto behind = starts_.lower_bound(time);
    return (behind != starts_.end() && isNearer(behind)) || (behind != starts_.begin() && isNearer(std::prev(behind)));
  }

 private:
  std::set<CMTime, Earlier> starts_;
};

/// Finds the gaps of an audio track in two ways: by a clock that counts packets, and by where each buffer ends.
class CoverageBuilder {
 public:
  CoverageBuilder(double rate, int samplesPerFrame, double sampleRate, double gapThresholdSeconds)
      : frameDuration_(samplesPerFrame / rate), sampleRate_(sampleRate), gapThresholdSeconds_(gapThresholdSeconds) {
    coverage_.aacSamplesPerFrame = samplesPerFrame;
  }

  void take(const CMSampleBuffer& buffer) {
    const CMTime pts = buffer.presentationTimeStamp;
    const int64_t frames = buffer.numSamples * coverage_.aacSamplesPerFrame;
    coverage_.totalSampleCount += frames;
    if (pts.isNumeric()) compareWithClock(pts, buffer.numSamples);
    if (hasPrevious_) compareWithPrevious(pts);
    previousEnd_ = endOf(buffer, frames, sampleRate_);
    hasPrevious_ = true;
  }

  bool hasFound() const { return hasFirst_; }

  AudioCoverage finish() {
    const CMTime start = coverage_.originalFirstPTS;
    coverage_.lastPTS = previousEnd_ - start;
    for (TimelineGap& gap : coverage_.gaps) {
      gap.startPTS = gap.startPTS - start;
      gap.endPTS = gap.endPTS - start;
      if (std::is_lt(compare(gap.startPTS, CMTime::zero()))) gap.startPTS = CMTime::zero();
      gap.duration = gap.endPTS - gap.startPTS;
    }
    coverage_.gaps = mergeOverlappingGaps(std::move(coverage_.gaps), gapMergeToleranceSeconds);
    return std::move(coverage_);
  }

  const CMTime& originalFirstPTS() const { return coverage_.originalFirstPTS; }

 private:
  void compareWithClock(const CMTime& pts, int64_t packets) {
    const double seconds = pts.seconds();
    if (!hasFirst_) {
      hasFirst_ = true;
      coverage_.originalFirstPTS = pts;
      expected_ = seconds;
      log("AudioTranscoder: Audio coverage - first PTS: {:.6f}s", seconds);
    }
    const double drift = seconds - expected_;
    const double step = drift - cumulativeDrift_;
    if (step > driftStepSeconds && std::isfinite(step) && std::isfinite(expected_)) {
      const CMTime start = CMTime::makeWithSeconds(expected_);
      const CMTime length = CMTime::makeWithSeconds(step);
      addGap({start, start + length, length});
    }
    if (std::isfinite(drift)) cumulativeDrift_ = drift;
    expected_ += frameDuration_ * static_cast<double>(packets);
  }

  void compareWithPrevious(const CMTime& pts) {
    const CMTime delta = pts - previousEnd_;
    if (!isStated(delta) || std::is_lteq(compare(delta, threshold_))) return;
    if (!starts_.hasNearer(previousEnd_, gapThresholdSeconds_)) addGap({previousEnd_, pts, delta});
  }

  void addGap(const TimelineGap& gap) {
    starts_.add(gap.startPTS);
    coverage_.gaps.push_back(gap);
  }

  const double frameDuration_;  // of a packet, in seconds
  const double sampleRate_;
  const double gapThresholdSeconds_;
  const CMTime threshold_ = CMTime::makeWithSeconds(gapThresholdSeconds_);
  AudioCoverage coverage_;
  GapStarts starts_;
  bool hasFirst_ = false;
  bool hasPrevious_ = false;
  double expected_ = 0;
  double cumulativeDrift_ = 0;
  CMTime previousEnd_;
};

}  // namespace

AudioCoverage buildAudioCoverage(const AVAsset& asset, const AVAssetTrack& audioTrack, const CMTime& videoRebaseOffset,
                                 double sampleRate, double gapThresholdSeconds) {
  CompressedWalk walk(asset, audioTrack);
  if (!walk.addOutput()) {
    throw AudioTranscoderError::assetReadFailed("Cannot add audio output for coverage analysis");
  }
  if (!walk.start()) {
    throw AudioTranscoderError::assetReadFailed("Audio coverage analysis failed: " + walk.failure());
  }
  const int samplesPerFrame = detectAACFrameSize(audioTrack);
  CoverageBuilder builder(detectActualSampleRate(audioTrack), samplesPerFrame, sampleRate, gapThresholdSeconds);
  for (auto buffer = walk.next(); buffer; buffer = walk.next()) builder.take(*buffer);
  walk.cancel();
  if (!builder.hasFound()) throw AudioTranscoderError::assetReadFailed("No audio samples found");

  const double offset = (builder.originalFirstPTS() - videoRebaseOffset).seconds();
  if (offset < 0) {
    log("AudioTranscoder: Audio starts {:.3f}s BEFORE video", -offset);
    logLine("  Note: All audio samples will be output; sync handled via edit lists");
  } else if (offset > 0.1) {
    log("AudioTranscoder: Audio starts {:.3f}s AFTER video", offset);
  }
  AudioCoverage coverage = builder.finish();
  logLine("AudioTranscoder: Audio coverage built (audio coordinates, PTS=0 at audio start):");
  log("  First PTS: {:.3f}s", coverage.firstPTS.seconds());
  log("  Last PTS: {:.3f}s", coverage.lastPTS.seconds());
  log("  Gaps: {} (total {:.3f}s)", coverage.gaps.size(), totalSeconds(coverage.gaps));
  log("  Total samples: {}", coverage.totalSampleCount);
  log("  Original first PTS: {:.3f}s", coverage.originalFirstPTS.seconds());
  return coverage;
}

}  // namespace tarn

#include "audio/analysis/VideoTimeline.h"

#include <cmath>
#include <compare>

#include "audio/AudioTranscoderError.h"
#include "audio/analysis/CompressedWalk.h"
#include "audio/analysis/TimelineGaps.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// Puts the gaps on a timeline that starts at zero; one without a length is dropped.
std::vector<TimelineGap> rebased(std::vector<TimelineGap> gaps, const CMTime& offset) {
  for (TimelineGap& gap : gaps) {
    gap.startPTS = gap.startPTS - offset;
    gap.endPTS = gap.endPTS - offset;
  }
  std::erase_if(gaps, [](const TimelineGap& gap) {
    return !isStated(gap.startPTS) || !isStated(gap.endPTS) || !(gap.duration.seconds() > 0);
  });
  return gaps;
}

}  // namespace

std::vector<TimelineGap> mergeOverlappingGaps(std::vector<TimelineGap> gaps, double toleranceSeconds) {
  if (gaps.size() < 2) return gaps;
  sortByStart(gaps);
  const CMTime tolerance = CMTime::makeWithSeconds(toleranceSeconds);
  std::vector<TimelineGap> merged{gaps.front()};
  for (auto gap = gaps.begin() + 1; gap != gaps.end(); ++gap) {
    TimelineGap& last = merged.back();
    if (std::is_gt(compare(gap->startPTS - last.endPTS, tolerance))) {
      merged.push_back(*gap);
      continue;
    }
    if (std::is_gt(compare(gap->endPTS, last.endPTS))) last.endPTS = gap->endPTS;
    last.duration = last.endPTS - last.startPTS;
  }
  return merged;
}

VideoTimeline buildVideoTimeline(const AVAsset& asset, const AVAssetTrack& videoTrack, double gapThresholdSeconds) {
  CompressedWalk walk(asset, videoTrack);
  if (!walk.addOutput()) {
    throw AudioTranscoderError::assetReadFailed("Cannot add video output for timeline analysis");
  }
  if (!walk.start()) {
    throw AudioTranscoderError::assetReadFailed("Video timeline analysis failed: " + walk.failure());
  }
  const CMTime threshold = CMTime::makeWithSeconds(gapThresholdSeconds);
  const CMTime usualLength = CMTime::make(1, 30);
  VideoTimeline timeline;
  CMTime previousEnd;
  bool hasSample = false;
  for (auto buffer = walk.next(); buffer; buffer = walk.next()) {
    const CMTime pts = buffer->presentationTimeStamp;
    if (!pts.isNumeric()) continue;
    if (!hasSample) {
      hasSample = true;
      timeline.rebaseOffset = pts;
      log("AudioTranscoder: Video timeline - first PTS: {:.6f}s", pts.seconds());
    } else if (isStated(previousEnd)) {
      const CMTime delta = pts - previousEnd;
      if (isStated(delta) && std::is_gt(compare(delta, threshold)) && std::isfinite(delta.seconds()) &&
          delta.seconds() > 0) {
        timeline.gaps.push_back({previousEnd, pts, delta});
      }
    }
    previousEnd = pts + (isStated(buffer->duration) ? buffer->duration : usualLength);
  }
  walk.cancel();
  if (!hasSample) throw AudioTranscoderError::assetReadFailed("No video samples found");
  timeline.gaps =
      mergeOverlappingGaps(rebased(std::move(timeline.gaps), timeline.rebaseOffset), gapMergeToleranceSeconds);
  timeline.endPTS = previousEnd - timeline.rebaseOffset;
  timeline.duration = timeline.endPTS;
  logLine("AudioTranscoder: Video timeline built:");
  log("  Duration: {:.3f}s", timeline.duration.seconds());
  log("  Gaps: {} (total {:.3f}s)", timeline.gaps.size(), totalSeconds(timeline.gaps));
  return timeline;
}

}  // namespace tarn

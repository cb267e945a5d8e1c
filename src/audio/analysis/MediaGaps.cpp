#include "audio/analysis/MediaGaps.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "audio/analysis/AudioFormatFacts.h"
#include "audio/transcode/FrameCounts.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr double longestFirstPacket = 0.25;  // seconds that it may last longer than it holds
constexpr double longestPacket = 1;          // seconds; what lasts longer is no sound
constexpr double mostOverlong = 60;          // seconds of that in all; more of it is drift
constexpr size_t mostEdits = 1000;           // that are looked through for each gap
constexpr double harmlessRounding = 0.001;   // of the time that passes

/// The parts of the media that are shown, in ticks of the track.
class ShownMedia {
 public:
  ShownMedia(std::vector<MediaEdit> edits, int32_t timescale) : edits_(std::move(edits)), timescale_(timescale) {
    if (edits_.size() > mostEdits) edits_ = {MediaEdit{}};
  }

  /// When the first part of a stretch of media is shown; nothing if no part of it is.
  std::optional<CMTime> timeOf(int64_t start, int64_t end) const {
    for (const MediaEdit& edit : edits_) {
      const int64_t from = std::max(start, edit.mediaStart);
      if (from >= std::min(end, edit.mediaEnd)) continue;
      return CMTime::make(edit.presentationStart + from - edit.mediaStart, timescale_);
    }
    return std::nullopt;
  }

  /// Seconds for which a stretch of media is shown.
  double lengthOf(int64_t start, int64_t end) const {
    double ticks = 0;
    for (const MediaEdit& edit : edits_) {
      ticks +=
          static_cast<double>(std::max<int64_t>(std::min(end, edit.mediaEnd) - std::max(start, edit.mediaStart), 0));
    }
    return ticks / timescale_;
  }

 private:
  std::vector<MediaEdit> edits_;
  int32_t timescale_;
};

class GapFinder {
 public:
  GapFinder(ShownMedia shown, AACType aacType, double gapThresholdMs, int32_t timescale)
      : shown_(std::move(shown)), aacType_(aacType), threshold_(gapThresholdMs / 1000), timescale_(timescale) {}

  void take(const CMSampleBuffer& buffer) {
    const auto count = countSamples(buffer, aacType_);
    rate_ = count.rate;
    const CMTime start = buffer.presentationTimeStamp;
    if (buffer.sampleIndex > 0) compare(buffer, start - expectedEnd_);
    total_ += count.samples;
    passed_ += count.seconds();
    expectedEnd_ = start + buffer.duration;
    if (buffer.duration.seconds() > longestPacket) {
      overlong_ += std::max(shown_.lengthOf(ticks(start), ticks(expectedEnd_)) - longestPacket, 0.0);
    }
  }

  InternalGapResult finish() {
    result_.summarize(rate_);
    // A length that no whole ticks hold is rounded by each packet alike.
    const double tick = 1.0 / timescale_;
    const bool isRounding = largestJump_ < tick && std::abs(drift_) < passed_ * harmlessRounding;
    result_.sampleBasedDriftMs = isRounding ? 0 : std::abs(drift_) * 1000;
    if (overlong_ > mostOverlong) result_.sampleBasedDriftMs += overlong_ * 1000;
    return std::move(result_);
  }

 private:
  void compare(const CMSampleBuffer& buffer, const CMTime& jump) {
    const double seconds = jump.seconds();
    if (buffer.sampleIndex == 1 && seconds > 0 && seconds <= longestFirstPacket) return;
    if (std::abs(seconds) > threshold_ && !takeBreak(buffer, jump, seconds)) return;
    drift_ += seconds;
    largestJump_ = std::max(largestJump_, std::abs(seconds));
  }

  /// False for one that is not shown.
  bool takeBreak(const CMSampleBuffer& buffer, const CMTime& jump, double seconds) {
    const auto [start, end] = std::minmax({ticks(buffer.presentationTimeStamp), ticks(expectedEnd_)});
    const auto time = shown_.timeOf(start, end);
    if (!time) return false;
    if (seconds > 0) {
      result_.gaps.push_back({*time, jump, buffer.sampleIndex, total_});
    } else {
      result_.overlaps.push_back({*time, wholeFrames(-seconds * rate_), buffer.sampleIndex, total_});
    }
    return true;
  }

  int64_t ticks(const CMTime& time) const { return std::llround(time.seconds() * timescale_); }

  ShownMedia shown_;
  AACType aacType_;
  double threshold_;  // seconds
  int32_t timescale_;
  InternalGapResult result_;
  CMTime expectedEnd_;
  int64_t total_ = 0;  // PCM samples
  double rate_ = 48000;
  double passed_ = 0;  // seconds, as are these
  double drift_ = 0;
  double largestJump_ = 0;
  double overlong_ = 0;  // of packets whose codec does not tell their length
};

}  // namespace

InternalGapResult detectMediaGaps(const AVAsset& asset, const AVAssetTrack& audioTrack, AACType aacType,
                                  double gapThresholdMs) {
  const auto samples = asset.compressedSamples(asset.withoutEditList(audioTrack));
  const auto timescale = static_cast<int32_t>(audioTrack.naturalTimeScale);
  GapFinder finder(ShownMedia(asset.shownMedia(audioTrack), timescale), aacType, gapThresholdMs, timescale);
  try {
    while (const auto buffer = samples->next()) finder.take(*buffer);
  } catch (const Error& failure) {
    log("The sound's gaps are known up to a packet that cannot be read: {}", failure.description());
  }
  return finder.finish();
}

}  // namespace tarn

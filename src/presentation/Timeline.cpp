#include "presentation/Timeline.h"

#include <algorithm>
#include <map>

#include "platform/Log.h"
#include "presentation/detail/LaidEdit.h"

namespace tarn {
namespace {

using Span = RepairSummary::Span;

constexpr size_t mostSpans = 500;         // that are told
constexpr size_t mostPieces = 1'000'000;  // that are looked through
constexpr double joint = 0.002;           // seconds between two spans that are taken as one
constexpr double shortestHole = 0.064;    // seconds; less than three packets are nobody's hole
constexpr double longestFirst = 0.25;     // seconds that recorders add to the first packet

/// Ticks of the media, from `start` on and before `end`.
struct MediaRange {
  int64_t start = 0;
  int64_t end = 0;
};

double seconds(MovieTime time) {
  return std::chrono::duration<double>(time).count();
}

/// How long most packets of a track last, in its ticks.
uint32_t usualLength(const std::vector<SampleTimes::Run>& runs) {
  std::map<uint32_t, uint64_t> counts;
  for (const SampleTimes::Run& run : runs) counts[run.delta] += run.count;
  const auto most = std::ranges::max_element(counts, {}, &std::pair<const uint32_t, uint64_t>::second);
  return most == counts.end() ? 0 : most->first;
}

/// The parts of the media that hold sound: a packet holds what most packets last.
std::vector<MediaRange> rangesWithSound(const TrackPresentation& track) {
  const std::vector<SampleTimes::Run> runs = track.times.runs();
  const uint32_t length = usualLength(runs);
  const auto ticks = [&](double time) { return static_cast<int64_t>(time * track.timescale); };
  std::vector<MediaRange> ranges{{0, track.mediaEnd}};
  for (const SampleTimes::Run& run : runs) {
    const int64_t hole = int64_t{run.delta} - length;
    if (hole <= ticks(shortestHole)) continue;
    for (uint32_t i = 0; i < run.count && ranges.size() < mostPieces; ++i) {
      const uint32_t sample = run.first + i;
      if (sample == 0 && hole <= ticks(longestFirst)) continue;
      if (sample + 1 >= track.sampleCount()) break;
      const int64_t start = run.firstTime + int64_t{run.delta} * i;
      ranges.back().end = start + length;
      ranges.push_back({start + run.delta, track.mediaEnd});
    }
  }
  return ranges;
}

/// Takes spans in the order of the movie, and joins those that touch.
class Spans {
 public:
  void add(MovieTime start, MovieTime end) {
    const Span span{seconds(start), seconds(end)};
    if (span.end <= span.start) return;
    if (!spans_.empty() && span.start - spans_.back().end < joint) {
      spans_.back().end = std::max(spans_.back().end, span.end);
    } else if (spans_.size() < mostPieces) {
      spans_.push_back(span);
    }
  }

  std::vector<Span> take() && {
    if (spans_.size() > mostSpans) closeSmallHoles();
    return std::move(spans_);
  }

 private:
  void closeSmallHoles() {
    std::vector<double> holes;
    for (size_t i = 1; i < spans_.size(); ++i) holes.push_back(spans_[i].start - spans_[i - 1].end);
    const auto largest = holes.begin() + (mostSpans - 1);
    std::nth_element(holes.begin(), largest, holes.end(), std::greater());
    std::vector<Span> kept{spans_.front()};
    for (const Span& span : spans_) {
      if (span.start - kept.back().end > *largest) {
        kept.push_back(span);
      } else {
        kept.back().end = std::max(kept.back().end, span.end);
      }
    }
    spans_ = std::move(kept);
  }

  std::vector<Span> spans_;
};

std::vector<Span> spansOf(const TrackPresentation& track, uint32_t movieTimescale,
                          const std::vector<MediaRange>& ranges) {
  Spans spans;
  size_t looked = 0;
  for (const LaidEdit& edit : laidEdits(track.edits, movieTimescale, track.timescale)) {
    const auto startsAhead = [&](const MediaRange& range) { return range.end <= edit.mediaStart; };
    auto range = std::ranges::partition_point(ranges, startsAhead);
    for (; range != ranges.end() && looked < mostPieces; ++range, ++looked) {
      if (edit.holds()) {
        if (range->start <= edit.mediaStart) spans.add(edit.start, edit.end);
        break;
      }
      if (range->start >= edit.mediaEndTouched) break;
      spans.add(std::max(edit.start, edit.at(range->start)), std::min(edit.end, edit.at(range->end)));
    }
  }
  return std::move(spans).take();
}

}  // namespace

RepairSummary::Timeline timelineOf(const Presentation& movie, SoundHoles holes) {
  RepairSummary::Timeline timeline;
  const TrackPresentation* video = movie.first("vide");
  const TrackPresentation* sound = movie.first("soun");
  if (video && video->samplesShown > 0) {
    timeline.video = spansOf(*video, movie.movieTimescale(), {{video->mediaStart(), video->mediaEnd}});
  }
  if (sound && sound->samplesShown > 0) {
    const auto ranges =
        holes == SoundHoles::shown ? rangesWithSound(*sound) : std::vector{MediaRange{0, sound->mediaEnd}};
    timeline.audio = spansOf(*sound, movie.movieTimescale(), ranges);
  }
  if (timeline.video.empty() || timeline.audio.empty()) return timeline;
  timeline.soundBehindAtStart = timeline.audio.front().start - timeline.video.front().start;
  timeline.soundBehindAtEnd = timeline.audio.back().end - timeline.video.back().end;
  return timeline;
}

std::optional<RepairSummary::Timeline> readTimeline(FileManager& files, const Path& path, SoundHoles holes) {
  try {
    return timelineOf(Presentation::read(files, path), holes);
  } catch (const Error& failure) {
    log("What {} shows cannot be told: {}", path.filename().string(), failure.description());
    return std::nullopt;
  }
}

}  // namespace tarn

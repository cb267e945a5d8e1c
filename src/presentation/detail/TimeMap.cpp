#include "presentation/detail/TimeMap.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <set>

#include "presentation/detail/LaidEdit.h"

namespace tarn {
namespace {

/// A part of the media, in its own seconds, that an edit shows.
struct MappedRange {
  MovieTime mediaFrom;
  MovieTime mediaTo;
  MovieTime movieFrom;
  double stretch;  ///< movie time for each unit of media time

  MovieTime at(MovieTime media) const {
    return stretch == 1 ? movieFrom + (media - mediaFrom) : movieFrom + scaled(media - mediaFrom);
  }
  MovieTime scaled(MovieTime length) const {
    return MovieTime(std::llround(static_cast<double>(length.count()) * stretch));
  }
};

struct TimeMap {
  std::vector<MappedRange> ranges;
  MovieTime mediaEnd{0};
  /// An edit that holds.
  struct Hold {
    MovieTime media;
    MovieTime length;  ///< movie time
  };
  std::vector<Hold> holds;
};

TimeMap timeMapOf(const TrackPresentation& track, uint32_t movieTimescale) {
  TimeMap map;
  MovieTime mediaStart = movieTime(track.mediaStart(), track.timescale);
  map.mediaEnd = movieTime(track.mediaEnd, track.timescale);
  for (const LaidEdit& edit : laidEdits(track.edits, movieTimescale, track.timescale)) {
    if (edit.holds()) {
      map.holds.push_back({movieTime(edit.mediaStart, track.timescale), edit.end - edit.start});
      continue;
    }
    double stretch = static_cast<double>(layout::normalRate) / edit.rate;
    MovieTime editFrom = movieTime(edit.mediaStart, track.timescale);
    MovieTime editTo =
        editFrom + MovieTime(std::llround(static_cast<double>((edit.end - edit.start).count()) / stretch));
    if (stretch == 1) editTo = editFrom + (edit.end - edit.start);
    MappedRange range{std::max(editFrom, mediaStart), std::min(editTo, map.mediaEnd), edit.start, stretch};
    range.movieFrom += range.scaled(range.mediaFrom - editFrom);
    if (range.mediaTo > range.mediaFrom) map.ranges.push_back(range);
  }
  return map;
}

/// The ranges of one map that show the moment of the media at which a sweep stands.
class ActiveRanges {
 public:
  explicit ActiveRanges(const TimeMap& map) : map_(map) {}

  void enter(size_t range) {
    active_.insert(range);
    stretch_ += map_.ranges[range].stretch;
  }
  void leave(size_t range) {
    active_.erase(range);
    stretch_ = active_.empty() ? 0 : stretch_ - map_.ranges[range].stretch;
  }
  /// The first of them in the movie.
  const MappedRange* first() const { return active_.empty() ? nullptr : &map_.ranges[*active_.begin()]; }
  /// How much of the movie's time shows a length of the media from here on.
  MovieTime shown(MovieTime length) const {
    return MovieTime(std::llround(static_cast<double>(length.count()) * stretch_));
  }

 private:
  const TimeMap& map_;
  std::set<size_t> active_;  // ranges are in the order of the movie
  double stretch_ = 0;
};

struct Event {
  MovieTime media;
  bool isAfter;
  bool enters;
  size_t range;
};

std::vector<Event> eventsOf(const TimeMap& before, const TimeMap& after) {
  std::vector<Event> events;
  for (bool isAfter : {false, true}) {
    const auto& ranges = (isAfter ? after : before).ranges;
    for (size_t i = 0; i < ranges.size(); ++i) {
      events.push_back({ranges[i].mediaFrom, isAfter, true, i});
      events.push_back({ranges[i].mediaTo, isAfter, false, i});
    }
  }
  std::ranges::sort(events, {}, &Event::media);
  return events;
}

/// By how much a moment of the media moved, and how much of the media it stands for.
struct Move {
  MovieTime by;
  MovieTime weight;
};

void summarize(std::vector<Move>& moves, TimeMapChange& change) {
  if (moves.empty()) return;
  std::ranges::sort(moves, {}, &Move::by);
  MovieTime total{0};
  for (const Move& move : moves) total += move.weight;
  MovieTime passed{0};
  for (const Move& move : moves) {
    passed += move.weight;
    change.shift = move.by;
    if (passed * 2 >= total) break;
  }
  change.largestMove = std::max(moves.back().by - change.shift, change.shift - moves.front().by);
}

/// Edits that hold pair in order; those of different moments of the media have nothing in common.
void compareHolds(const TimeMap& before, const TimeMap& after, MovieTime grain, TimeMapChange& change) {
  for (size_t i = 0; i < std::max(before.holds.size(), after.holds.size()); ++i) {
    TimeMap::Hold old = i < before.holds.size() ? before.holds[i] : TimeMap::Hold{};
    TimeMap::Hold young = i < after.holds.size() ? after.holds[i] : TimeMap::Hold{};
    MovieTime common =
        std::chrono::abs(old.media - young.media) <= grain ? std::min(old.length, young.length) : MovieTime(0);
    change.hidden += old.length - common;
    change.revealed += young.length - common;
  }
}

}  // namespace

TimeMapChange compareTimeMaps(const TrackPresentation& before, uint32_t movieTimescaleBefore,
                              const TrackPresentation& after, uint32_t movieTimescaleAfter, MovieTime grain) {
  TimeMap old = timeMapOf(before, movieTimescaleBefore);
  TimeMap young = timeMapOf(after, movieTimescaleAfter);
  ActiveRanges oldRanges(old);
  ActiveRanges youngRanges(young);
  MovieTime commonEnd = std::min(old.mediaEnd, young.mediaEnd);
  TimeMapChange change;
  std::vector<Move> moves;
  MovieTime from{0};
  auto pass = [&](MovieTime to) {
    const MappedRange* a = oldRanges.first();
    const MappedRange* b = youngRanges.first();
    if (to <= from || (!a && !b)) return;
    if (a && b && to - from > grain) {
      moves.push_back({b->at(from) - a->at(from), (to - from) / 2});
      moves.push_back({b->at(to) - a->at(to), (to - from) / 2});
    }
    MovieTime more = youngRanges.shown(to - from) - oldRanges.shown(to - from);
    bool isAtEnd = from >= commonEnd;
    MovieTime& total = more < MovieTime(0) ? (isAtEnd ? change.hiddenAtEnd : change.hidden)
                                           : (isAtEnd ? change.revealedAtEnd : change.revealed);
    total += std::chrono::abs(more);
  };
  for (const Event& event : eventsOf(old, young)) {
    pass(event.media);
    from = event.media;
    ActiveRanges& ranges = event.isAfter ? youngRanges : oldRanges;
    event.enters ? ranges.enter(event.range) : ranges.leave(event.range);
  }
  compareHolds(old, young, grain, change);
  summarize(moves, change);
  return change;
}

}  // namespace tarn

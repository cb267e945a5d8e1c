#include "presentation/PresentationChange.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>

#include "presentation/Harms.h"
#include "presentation/detail/LaidEdit.h"
#include "presentation/detail/SampleOrder.h"
#include "presentation/detail/TimeMap.h"

namespace tarn {
namespace {

/// One of the two files, and a track of it.
struct Side {
  const Presentation& movie;
  const TrackPresentation& track;
};

/// Where bytes of the old file are in the new one.
class ByteMap {
 public:
  explicit ByteMap(SharedBytes shared) : shared_(shared) {}

  /// Whether bytes of the old file are all in the new one, at `to`.
  bool leads(uint64_t from, uint64_t size, uint64_t to) {
    if (!shared_) return from == to;
    while (size > 0) {
      const CopiedRange* range = rangeAt(from);
      if (!range || range->to + (from - range->from) != to) return false;
      uint64_t there = std::min(size, range->from + range->size - from);
      from += there;
      to += there;
      size -= there;
    }
    return true;
  }

 private:
  const CopiedRange* rangeAt(uint64_t offset) {
    auto holds = [&](const CopiedRange& range) { return range.from <= offset && offset - range.from < range.size; };
    if (last_ && holds(*last_)) return last_;
    auto behind = std::ranges::upper_bound(*shared_, offset, {}, &CopiedRange::from);
    if (behind == shared_->begin() || !holds(*std::prev(behind))) return nullptr;
    return last_ = &*std::prev(behind);
  }

  SharedBytes shared_;
  const CopiedRange* last_ = nullptr;
};

/// Of the samples that both tracks have, those whose bytes are not known to be the same. What lies behind the end of
/// the old file has no bytes to compare. Samples of one size count together, as many as follow each other.
uint32_t countChanged(const SampleLocations& before, const SampleLocations& after, uint32_t count, SharedBytes shared,
                      bool comparesBytes) {
  ByteMap map(shared);
  SampleLocations::Cursor old(before);
  SampleLocations::Cursor young(after);
  bool isOneSize = before.haveOneSize() && after.haveOneSize();
  uint32_t changed = 0;
  for (uint32_t sample = 0; sample < count;) {
    uint32_t samples = isOneSize ? std::min({old.leftInChunk(), young.leftInChunk(), count - sample}) : 1;
    uint64_t size = uint64_t{samples} * before.sizeOf(sample);
    uint64_t there = std::min(size, before.fileSize() - std::min(old.offset(), before.fileSize()));
    bool isSame = before.sizeOf(sample) == after.sizeOf(sample) &&
                  (!comparesBytes || map.leads(old.offset(), there, young.offset()));
    if (!isSame) changed += samples;
    old.advance(samples);
    young.advance(samples);
    sample += samples;
  }
  return changed;
}

bool showTheSame(const Side& before, const Side& after) {
  return before.movie.movieTimescale() == after.movie.movieTimescale() &&
         before.track.timescale == after.track.timescale && before.track.edits == after.track.edits &&
         before.track.times == after.track.times;
}

/// What is shown of one picture.
struct PictureShowing {
  static constexpr MovieTime nowhere = MovieTime::min();

  MovieTime start = nowhere;  ///< in the first edit that shows it, as if that edit had no start
  MovieTime length{0};        ///< in all edits together

  bool isShown() const { return start != nowhere; }
};

/// By sample number. Linear in the pictures and the edits, however often edits repeat the media.
std::vector<PictureShowing> showingsOf(const Side& side) {
  const TrackPresentation& track = side.track;
  std::vector<PictureShowing> showings(track.sampleCount());
  SampleOrder order(track.times, track.sampleCount(), track.handler);
  PlaceSet placed;
  std::vector<double> stretch(order.count() + 1);  // how much longer a whole picture lasts, from this place on
  auto at = [&](uint32_t place) -> PictureShowing& { return showings[order.sample(place)]; };
  MovieTime tick = tickOf(side.movie.movieTimescale());
  for (const LaidEdit& edit : laidEdits(track.edits, side.movie.movieTimescale(), track.timescale)) {
    EditShowing showing = showingOf(order, edit, tick);
    auto [first, end] = showing.shown;
    for (PlaceRange range : placed.add(showing.shown)) {
      for (uint32_t place = range.first; place < range.end; ++place) {
        at(place).start = edit.holds() ? edit.start : edit.at(order.start(place));
      }
    }
    if (end - first < 2) {
      if (first < end) at(first).length += showing.to - showing.from;
      continue;
    }
    // The first and the last one may be cut off, those between are whole.
    at(first).length += edit.at(order.end(first)) - showing.from;
    at(end - 1).length += showing.to - edit.at(order.start(end - 1));
    stretch[first + 1] += static_cast<double>(layout::normalRate) / edit.rate;
    stretch[end - 1] -= static_cast<double>(layout::normalRate) / edit.rate;
  }
  double sum = 0;
  for (uint32_t place = 0; place < order.count(); ++place) {
    sum += stretch[place];
    MovieTime length = movieTime(order.end(place) - order.start(place), track.timescale);
    at(place).length += MovieTime(std::llround(static_cast<double>(length.count()) * sum));
  }
  return showings;
}

void comparePictures(const Side& before, const Side& after, TrackChange& change) {
  constexpr MovieTime rounded{2};
  std::vector<PictureShowing> old = showingsOf(before);
  std::vector<PictureShowing> young = showingsOf(after);
  std::vector<MovieTime> moves;
  for (size_t i = 0; i < std::min(old.size(), young.size()); ++i) {
    if (old[i].isShown() && young[i].isShown()) {
      moves.push_back(young[i].start - old[i].start);
      MovieTime more = young[i].length - old[i].length;
      if (more < -rounded) change.hidden -= more;
      if (more > rounded) change.revealed += more;
    } else if (old[i].isShown() != young[i].isShown()) {
      ++(old[i].isShown() ? change.samplesHidden : change.samplesRevealed);
    }
  }
  if (moves.empty()) return;
  auto middle = moves.begin() + static_cast<ptrdiff_t>(moves.size() / 2);
  std::ranges::nth_element(moves, middle);
  change.shift = *middle;
  auto [earliest, latest] = std::ranges::minmax(moves);
  change.largestMove = std::max(latest - change.shift, change.shift - earliest);
}

/// The most that a sample moved in its media.
MovieTime largestMoveInMedia(const Side& before, const Side& after) {
  if (before.track.timescale == after.track.timescale && before.track.times == after.track.times) return MovieTime(0);
  SampleTimes::Cursor old(before.track.times, 0);
  SampleTimes::Cursor young(after.track.times, 0);
  MovieTime largest{0};
  for (uint32_t i = 0; i < std::min(before.track.sampleCount(), after.track.sampleCount()); ++i) {
    MovieTime from = movieTime(old.time().decodeTime, before.track.timescale);
    MovieTime to = movieTime(young.time().decodeTime, after.track.timescale);
    largest = std::max(largest, std::chrono::abs(to - from));
    old.advance();
    young.advance();
  }
  return largest;
}

void compareInTime(const Side& before, const Side& after, TrackChange& change) {
  // Where media times were brought to another timescale, entries meet within a tick of either.
  MovieTime grain{2};
  if (before.track.timescale != after.track.timescale) {
    grain = movieTime(1, std::min(before.track.timescale, after.track.timescale));
  }
  TimeMapChange map =
      compareTimeMaps(before.track, before.movie.movieTimescale(), after.track, after.movie.movieTimescale(), grain);
  change.shift = map.shift;
  change.largestMove = map.largestMove;
  change.hidden = map.hidden;
  change.revealed = map.revealed;
  // An encoder cuts its last packet; the source's last one may reach over a gap behind it.
  MovieTime packet{0};
  if (change.isRemade) {
    packet = std::max(before.track.sampleLength(before.track.sampleCount() - 1), after.track.sampleLength(0));
  }
  if (map.hiddenAtEnd > packet) change.hidden += map.hiddenAtEnd;
  if (map.revealedAtEnd > packet) change.revealed += map.revealedAtEnd;
  if (!change.isRemade) change.largestMove += largestMoveInMedia(before, after);
}

void compareTimes(const Side& before, const Side& after, TrackChange& change) {
  if (!change.isRemade && showTheSame(before, after)) return;
  bool byPictures = !change.isRemade && before.track.handler == "vide";
  byPictures ? comparePictures(before, after, change) : compareInTime(before, after, change);
}

void compareSamples(const Side& before, const Side& after, SharedBytes shared, bool comparesBytes,
                    TrackChange& change) {
  uint32_t oldCount = before.track.sampleCount();
  uint32_t newCount = after.track.sampleCount();
  if (change.isRemade) {
    change.samplesMissing = after.track.locations.count() - after.track.locations.countInFile();
    return;
  }
  uint32_t common = std::min(oldCount, newCount);
  change.samplesMissing = oldCount - common;
  change.samplesAdded = newCount - common;
  change.samplesChanged = countChanged(before.track.locations, after.track.locations, common, shared, comparesBytes);
}

/// The new track of each old one, null where there is none.
std::vector<const TrackPresentation*> pairTracks(const Presentation& before, const Presentation& after) {
  std::vector<const TrackPresentation*> left;
  for (const TrackPresentation& track : after.tracks()) left.push_back(&track);
  std::vector<const TrackPresentation*> pairs(before.tracks().size(), nullptr);
  for (bool needsID : {true, false}) {
    for (size_t i = 0; i < pairs.size(); ++i) {
      const TrackPresentation& track = before.tracks()[i];
      auto found = std::ranges::find_if(left, [&](const TrackPresentation* candidate) {
        return candidate->handler == track.handler && (!needsID || candidate->trackID == track.trackID);
      });
      if (pairs[i] || found == left.end()) continue;
      pairs[i] = *found;
      left.erase(found);
    }
  }
  return pairs;
}

}  // namespace

PresentationChange comparePresentations(const Presentation& before, const Presentation& after, SharedBytes shared,
                                        const AnnouncedChange& announced) {
  PresentationChange result;
  auto pairs = pairTracks(before, after);
  const TrackPresentation* pictures = before.first("vide");
  for (size_t i = 0; i < pairs.size(); ++i) {
    const TrackPresentation& old = before.tracks()[i];
    TrackChange change{.trackID = old.trackID, .handler = old.handler, .isLost = !pairs[i]};
    if (pairs[i]) {
      const TrackPresentation& young = *pairs[i];
      change.isRemade = announced.remadeTrack == old.trackID;
      change.isDescribedOtherwise = old.isEnabled != young.isEnabled || old.matrix != young.matrix;
      change.hasDamagedList = young.damage != EditListDamage::none && old.damage == EditListDamage::none;
      compareTimes({before, old}, {after, young}, change);
      compareSamples({before, old}, {after, young}, shared, announced.comparesBytes, change);
    }
    if (&old == pictures) result.pictureShift = change.shift;
    result.tracks.push_back(std::move(change));
  }
  std::ranges::set_difference(before.metadata(), after.metadata(), std::back_inserter(result.metadataLost));
  return result;
}

RewriteCheck requireHarmless(FileManager& files, const Presentation& before, const AnnouncedChange& announced) {
  return [&files, &before, announced](const Path& result, std::span<const CopiedRange> copied) {
    const auto harms = harmsOfResult(files, result, before, copied, announced);
    if (!harms.empty()) throw RefusedResult(fmt::format("{}", fmt::join(harms, "; ")));
  };
}

}  // namespace tarn

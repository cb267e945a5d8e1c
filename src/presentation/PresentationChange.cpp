#include "presentation/PresentationChange.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <utility>

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

/// Counts those samples of both tracks whose bytes are not known to be the same. What is past the end of
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

/// How what is shown of one picture changes. There may be millions of them.
struct PictureChange {
  static constexpr MovieTime nowhere = MovieTime::min();

  MovieTime start = nowhere;  ///< in the first edit that shows it, as if that edit had no start; then how it moves
  MovieTime longer{0};        ///< how much longer it is shown, in all edits together

  bool isShown() const { return start != nowhere; }
};

/// Calls `start(sample, time)` once for each picture that is shown, with its time in the first edit that shows it, as
/// if that edit had no start, and `add(sample, length)` for each length that it is shown, once or more often. Linear in
/// the pictures and the edits, however often edits repeat the media.
void forEachShowing(const Side& side, const auto& start, const auto& add) {
  const TrackPresentation& track = side.track;
  SampleOrder order(track.times, track.sampleCount(), track.handler);
  PlaceSet placed;
  std::vector<std::pair<uint32_t, double>> stretch;  // how much longer a whole picture lasts, from this place on
  MovieTime tick = tickOf(side.movie.movieTimescale());
  for (const LaidEdit& edit : laidEdits(track.edits, side.movie.movieTimescale(), track.timescale)) {
    EditShowing showing = showingOf(order, edit, tick);
    auto [first, end] = showing.shown;
    for (PlaceRange range : placed.add(showing.shown)) {
      for (uint32_t place = range.first; place < range.end; ++place) {
        start(order.sample(place), edit.holds() ? edit.start : edit.at(order.start(place)));
      }
    }
    if (end - first < 2) {
      if (first < end) add(order.sample(first), showing.to - showing.from);
      continue;
    }
    // The first and the last one may be cut off, those between are whole.
    add(order.sample(first), edit.at(order.end(first)) - showing.from);
    add(order.sample(end - 1), showing.to - edit.at(order.start(end - 1)));
    const double rate = static_cast<double>(layout::normalRate) / edit.rate;
    stretch.emplace_back(first + 1, rate);
    stretch.emplace_back(end - 1, -rate);
  }
  std::ranges::stable_sort(stretch, {}, &std::pair<uint32_t, double>::first);
  double sum = 0;
  auto next = stretch.begin();
  for (uint32_t place = 0; place < order.count(); ++place) {
    for (; next != stretch.end() && next->first == place; ++next) sum += next->second;
    MovieTime length = movieTime(order.end(place) - order.start(place), track.timescale);
    add(order.sample(place), MovieTime(std::llround(static_cast<double>(length.count()) * sum)));
  }
}

void comparePictures(const Side& before, const Side& after, TrackChange& change) {
  constexpr MovieTime rounded{2};
  const uint32_t count = std::min(before.track.sampleCount(), after.track.sampleCount());
  std::vector<PictureChange> pictures(std::max(before.track.sampleCount(), after.track.sampleCount()));
  std::vector<bool> areShown(pictures.size());
  forEachShowing(
      before, [&](uint32_t sample, MovieTime start) { pictures[sample].start = start; },
      [&](uint32_t sample, MovieTime length) { pictures[sample].longer -= length; });
  forEachShowing(
      after,
      [&](uint32_t sample, MovieTime start) {
        areShown[sample] = true;
        if (pictures[sample].isShown()) pictures[sample].start = start - pictures[sample].start;
      },
      [&](uint32_t sample, MovieTime length) { pictures[sample].longer += length; });
  std::vector<MovieTime> moves;
  for (uint32_t i = 0; i < count; ++i) {
    const PictureChange& picture = pictures[i];
    if (picture.isShown() && areShown[i]) {
      moves.push_back(picture.start);
      if (picture.longer < -rounded) change.hidden -= picture.longer;
      if (picture.longer > rounded) change.revealed += picture.longer;
    } else if (picture.isShown() != areShown[i]) {
      ++(picture.isShown() ? change.samplesHidden : change.samplesRevealed);
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
  // An encoder cuts its last packet; the source's last one may reach over a gap after it.
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

/// The new track of each old one, null if there is none.
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

#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "mp4/SampleTimes.h"
#include "presentation/detail/LaidEdit.h"

namespace tarn {

/// Places in a SampleOrder, from `first` on and before `end`.
struct PlaceRange {
  uint32_t first = 0;
  uint32_t end = 0;

  bool isEmpty() const { return first >= end; }
};

/// The samples of a track in the order of their media intervals, which do not overlap: pictures in order of
/// composition, each up to the next; all others in order of decoding. Of pictures with one composition time the last
/// one in decode order counts; the others have no interval, and no place here.
class SampleOrder {
 public:
  /// The most pictures that a track may have: memory is taken for each.
  static constexpr uint32_t mostPictures = uint32_t{1} << 23;

  /// The times must outlive it and stay where they are.
  SampleOrder(const SampleTimes& times, uint32_t sampleCount, std::string_view handler);

  bool holdsPictures() const { return holdsPictures_; }
  uint32_t count() const { return holdsPictures_ ? static_cast<uint32_t>(pictures_.size()) : sampleCount_; }
  uint32_t sample(uint32_t place) const { return holdsPictures_ ? pictures_[place].sample : place; }
  int64_t start(uint32_t place) const;
  int64_t end(uint32_t place) const;
  /// Both 0 without samples; of samples that are no pictures composition is not looked at.
  int64_t mediaEnd() const;
  int64_t smallestCompositionTime() const { return pictures_.empty() ? 0 : pictures_.front().start; }
  /// Samples that have an interval.
  uint32_t countWithLength(PlaceRange range) const;

  /// The first place whose interval begins at this time or later, and the first whose interval ends later.
  uint32_t firstFrom(int64_t time) const;
  uint32_t firstEndingBehind(int64_t time) const;

 private:
  /// It lasts until the next one begins.
  struct Picture {
    int64_t start;
    uint32_t sample;
  };

  const SampleTimes& times_;
  uint32_t sampleCount_;
  bool holdsPictures_;
  std::vector<Picture> pictures_;
  int64_t picturesEnd_ = 0;  ///< of the last one
};

/// What one edit shows of an order.
struct EditShowing {
  PlaceRange shown;
  PlaceRange whole;  ///< of those shown, the ones that are shown from start to end
  MovieTime from{0};
  MovieTime to{0};
};
/// A picture of which no more than `tick` and less than its half is inside the edit does not count as shown: the
/// durations of a list are whole ticks of the movie.
EditShowing showingOf(const SampleOrder& order, const LaidEdit& edit, MovieTime tick);

/// A set of places.
class PlaceSet {
 public:
  /// Adds places; returns those that were not in the set.
  std::vector<PlaceRange> add(PlaceRange range);
  /// How many samples with an interval they are.
  uint32_t count(const SampleOrder& order) const;

 private:
  std::map<uint32_t, uint32_t> ends_;  // by first place; no two touch
};

}  // namespace tarn

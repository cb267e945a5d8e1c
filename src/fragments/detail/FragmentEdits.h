#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "fragments/detail/FragmentTrack.h"
#include "mp4/EditList.h"
#include "platform/Int128.h"

namespace tarn {

/// A time on the movie's timeline, exact in the ticks of any track.
struct ExactTime {
  Int128 numerator = 0;  ///< movie ticks times `denominator`
  uint32_t denominator = 1;

  bool operator<(const ExactTime& other) const { return numerator * other.denominator < other.numerator * denominator; }
};

/// The edits of a track whose samples come from fragments (ISO/IEC 14496-12 8.6.6): what they show at which time stays,
/// while the media begin at 0 and the movie with the first track that shows something.
class FragmentEdits {
 public:
  /// `source` is the track's list in the movie in fragments. Throws FragmentsError for a list that is about the samples
  /// of the `moov` alone, MovieError: damaged, for times out of range.
  FragmentEdits(const std::vector<EditListEntry>& source, const FragmentTrack& track, uint32_t movieTimescale);

  /// When the movie first shows something of the track; nothing if it never does.
  std::optional<ExactTime> firstShown() const;
  /// The list of the plain movie, which begins at `movieStart` of the old one. Each entry has its true length. Empty if
  /// the track needs none.
  std::vector<EditListEntry> entries(const ExactTime& movieStart) const;

 private:
  struct Piece {
    Int128 begin;  ///< on the movie's timeline, movie ticks times track ticks
    Int128 end;
    int64_t media;  ///< track timescale, counted from the first sample
    int32_t rate;
    bool reachesEnd;  ///< of the media
  };

  EditListEntry lengthened(EditListEntry entry, const FragmentTrack& track) const;
  void add(const EditListEntry& entry);
  int64_t latenessOf(const Piece& piece) const;

  uint32_t movieTimescale_;
  uint32_t timescale_;
  int64_t start_;  ///< decoding time of the first sample by the source
  TrackTables::Composition media_;
  bool hasList_;
  Int128 clock_ = 0;
  std::vector<Piece> pieces_;
};

}  // namespace tarn

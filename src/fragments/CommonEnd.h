#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "fragments/TrackTables.h"
#include "movie/MovieTree.h"

namespace tarn {

/// Samples of a track that do not lie in the file, after all that do and are in its tables.
struct MissingSamples {
  uint64_t count = 0;
  std::optional<int64_t> firstTime = {};  ///< the smallest composition time of them, track timescale, if it is known
  bool mayBeMore = false;                 ///< samples may be missing that nobody knows of

  bool areAny() const { return count > 0 || mayBeMore; }
};

/// What a movie that broke off keeps and loses.
struct LostEnd {
  std::optional<double> secondsBefore = {};  ///< of the whole movie, if it says so
  double secondsKept = 0;                    ///< of the pictures; of the sound if there are none
  std::optional<double> soundKept = {};      ///< seconds, if the sound does not end with the pictures
  uint64_t pictures = 0;                     ///< lost
  uint64_t packets = 0;                      ///< of sound, lost
  uint64_t others = 0;                       ///< samples of other tracks, lost
  uint64_t tracks = 0;                       ///< lost as a whole, since their tables are cut off

  /// In words for people.
  std::string words() const;
};

/// Lets a movie that broke off end well. Pictures are kept as long as they are shown without a gap, and pictures and
/// sound to a common end: that of the track of them that ends first of those which miss samples. If another one would
/// lose more than 10 s by that, or all its samples, each keeps its own end. The headers (mdhd, tkhd, mvhd) and edit
/// lists of the `moov` follow; tracks that keep all they have are left as they are. `tables` and `missing` are those of
/// each `trak`, in order; the tables are cut, and not written into the `moov`. Throws FragmentsError if no picture, or
/// of a movie without pictures no sound is left; MovieError: damaged.
LostEnd cutToCommonEnd(MovieBox& moov, std::vector<TrackTables>& tables, const std::vector<MissingSamples>& missing);

}  // namespace tarn

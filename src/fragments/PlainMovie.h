#pragma once

#include <functional>
#include <vector>

#include "fragments/TrackTables.h"
#include "movie/MovieTree.h"
#include "platform/FileManager.h"

namespace tarn {

/// A plain movie to be written: all samples are listed in its `moov`.
struct PlainMovie {
  Bytes ftyp;                       ///< a whole box
  MovieBox moov;                    ///< its headers, edit lists and sample descriptions are final
  std::vector<TrackTables> tables;  ///< of each `trak` of the `moov`, in order; offsets as in the source
};

/// Writes `ftyp`, `moov` and one `mdat` with a 64-bit header: the samples in the order in which they lie in `source`,
/// neighbours as one range, each chunk whole. Samples that share bytes in the source share them in the result. `poll`
/// hears the part that is done, from 0 to 1, at least every 10 MiB, and may throw. Throws MovieError if something does
/// not fit its field or the source ends before a sample, PosixError.
void writePlainMovie(FileHandle& source, FileHandle& target, PlainMovie movie, const std::function<void(double)>& poll);

}  // namespace tarn

#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "fragments/CommonEnd.h"
#include "fragments/TrackTables.h"
#include "movie/MediaLayout.h"
#include "movie/MovieTree.h"
#include "platform/FileManager.h"

namespace tarn {

/// A plain movie that broke off after its `moov`, and what can be kept of it.
struct CutMovie {
  MediaLayout layout;               ///< of the file
  BoxHeader place;                  ///< of its `moov`
  MovieBox moov;                    ///< of the result; the tables of its tracks are still those of the file
  std::vector<TrackTables> tables;  ///< of each `trak`, in order; offsets as in the file
  /// Nothing if every sample is in the file, and only the size of the last `mdat` is wrong.
  std::optional<LostEnd> loss;
};

/// Looks for samples that end past the end of a file whose last box is cut, and for an `mdat` that is. Of a healthy
/// movie no more than its top-level boxes is read. Returns nothing for one, for a movie in fragments, for tables that
/// cannot be read, and for samples after the end with others after them in the file. Throws FragmentsError for a
/// movie of which nothing is left, or whose `moov` is cut off within its tracks; PosixError, but not for every read
/// that fails: a ReadWatch tells.
std::optional<CutMovie> findCut(FileHandle& file);

/// The same for a file: true also for one of which nothing is left. Throws PosixError if it cannot be read.
bool isCutOff(FileManager& files, const Path& path);

/// Writes what can be kept: each box that is there, in its order, with the new `moov` and the true size of the last
/// `mdat`. `poll` hears the part that is done, from 0 to 1, at least every 10 MiB, and may throw. Throws MovieError,
/// PosixError.
void writeCutMovie(FileHandle& source, FileHandle& target, CutMovie movie, const std::function<void(double)>& poll);

}  // namespace tarn

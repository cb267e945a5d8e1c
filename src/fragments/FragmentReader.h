#pragma once

#include <functional>
#include <string>
#include <vector>

#include "fragments/detail/FragmentTrack.h"
#include "movie/MovieTree.h"
#include "platform/FileManager.h"

namespace tarn {

/// A movie in fragments (ISO/IEC 14496-12 8.8) with all its samples gathered.
struct FragmentedMovie {
  Bytes ahead;                        ///< the `ftyp` and other whole boxes that are neither media nor about fragments
  MovieBox moov;                      ///< the first one, as it is
  std::vector<FragmentTrack> tracks;  ///< of each `trak` of the `moov`, in order
  std::vector<std::string> notes;     ///< what was found and what is left out, in words for people
  bool isCut = false;                 ///< the file breaks off: samples or whole fragments are missing at its end
};

/// Gathers the samples of the `moov` and of all fragments; reads no media. A fragment that the end of the file cuts off
/// is passed over, of the last whole one each track keeps the samples that lie in the file before the first one that
/// does not. `poll` hears the part that is read, from 0 to 1, and may throw. Throws FragmentsError for a movie that
/// cannot become a plain one, MovieError for one that is damaged, PosixError.
FragmentedMovie readFragmentedMovie(FileHandle& file, const std::function<void(double)>& poll);

}  // namespace tarn

#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// Why a movie is not rebuilt, in words for people.
class LostMoovError : public Error {
 public:
  explicit LostMoovError(const std::string& words) : Error("LostMoov", -1, words) {}
};

/// What became of a movie whose `moov` was lost.
struct RebuiltMovie {
  uint64_t pictures = 0;
  double seconds = 0;                         ///< of the pictures
  std::optional<std::string> brokenOff = {};  ///< where and why the rest is lost; nothing if there is no rest
  std::vector<std::string> notes = {};        ///< what is lost beside it, in words for people
};

/// Rebuilds a movie without a `moov` from its media alone, with the help of a healthy movie of the same recorder: one
/// AVC or HEVC track of one sample entry, and at most one track of AAC-LC or PCM. Other tracks are not rebuilt.
/// Pictures that do not all last equally long in the healthy movie do so in the result, and end with the sound.
/// Pictures are the length-prefixed units whose slice headers parse under the parameter sets of the healthy movie, and
/// are shown in the order of their counts; sound is what parses as packets of AAC, or has the block size of the PCM and
/// is as long as the healthy movie's. The walk ends at the first byte that is neither, and what lies before it is
/// kept as far as a decoder takes it without a complaint. Writes a plain movie to `result`; `poll` hears the part that
/// is done, from 0 to 1, and may throw. Throws LostMoovError if that cannot be done, with the place where the chain
/// broke, MovieError, PosixError.
RebuiltMovie rebuildLostMoov(FileManager& files, const Path& broken, const Path& healthy, const Path& result,
                             const std::function<void(double)>& poll);

}  // namespace tarn

#pragma once

#include "audio/replace/ReplacedMovie.h"
#include "audio/replace/ReplacerInput.h"
#include "movie/CopiedRange.h"

namespace tarn {

/// A run of bytes that replaces some of the source's.
struct Patch {
  uint64_t offset;
  uint64_t removed;
  Bytes bytes;
};

/// What the result has instead of the source's bytes: the `moov`, item locations that moved, and an `ftyp` if there is
/// none. All places that they name are those of the result. Ascending. Throws AudioTrackReplacerError, MovieError and
/// PosixError.
std::vector<Patch> makePatches(const ReplacedMovie& movie, const ReplacerInput& original,
                               const ReplacerInput& newAudio);

/// Writes the source with its patches, and the media of `newAudio` after the `moov`; returns what it copied of the
/// source. Throws AudioTrackReplacerError and PosixError.
std::vector<CopiedRange> writeReplacedFile(const ReplacerInput& original, const ReplacerInput& newAudio,
                                           const std::vector<Patch>& patches, FileHandle& output);

}  // namespace tarn

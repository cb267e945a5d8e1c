#pragma once

#include <cstddef>

#include "audio/MP4AudioTrackReplacer.h"
#include "audio/replace/ReplacerInput.h"

namespace tarn {

/// The movie of the result. All chunk offsets are still those of the inputs.
struct ReplacedMovie {
  MovieBox moov;
  size_t audio;  ///< the place among the children of the track whose chunks are in the new audio
};

/// The movie of `original` with the media of `newAudio` in its first audio track, or with a track of its own for them.
/// Throws AudioTrackReplacerError and MovieError.
ReplacedMovie makeReplacedMovie(const ReplacerInput& original, const ReplacerInput& newAudio,
                                MP4AudioTrackReplacer::EditList editList);

}  // namespace tarn

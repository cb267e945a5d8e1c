#pragma once

#include <cstdint>
#include <vector>

#include "movie/MovieTree.h"
#include "movie/TrackFields.h"
#include "mp4/EditList.h"

namespace tarn {

// The times in the headers and edit lists of a `moov` that gets other samples.

/// Stores a duration in an `mvhd`, `tkhd` or `mdhd`, which becomes one of version 1 if it must. Throws MovieError:
/// damaged if the header is not there or ends before its duration.
void storeDuration(MovieBox* header, const VersionedField& field, uint64_t ticks);

/// The edits of a `trak`; none without a list.
std::vector<EditListEntry> editListOf(const MovieBox& trak);

/// Puts the edits into a `trak`; none removes the `edts`.
void putEdits(MovieBox& trak, const std::vector<EditListEntry>& entries);

}  // namespace tarn

#pragma once

#include "inspect/Inspection.h"

namespace tarn {

/// Reads the row of top-level boxes into the inspection.
void readTopLevel(FileHandle& file, Inspection& inspection);

/// The tracks of the first `moov`, at most `mostListed`; none where there is no `moov`.
std::vector<TrackFacts> readTracks(FileHandle& file);

/// Of a longer row of boxes or tracks only the beginning is told.
inline constexpr size_t mostListed = 1000;

}  // namespace tarn

#pragma once

#include <cstdint>
#include <vector>

#include "fragments/FragmentReader.h"
#include "fragments/Runs.h"
#include "platform/FileManager.h"

namespace tarn {

/// What the reader of the fragments summed up of a track, sample by sample.
struct TrackSums {
  uint32_t trackID = 0;
  uint64_t samples = 0;
  uint64_t duration = 0;  ///< track timescale
  Runs<bool> syncs;       ///< of each sample
};

std::vector<TrackSums> sumsOf(const FragmentedMovie& movie);
/// The same of tables, those of each `trak` of the `moov`, in order.
std::vector<TrackSums> sumsOf(const MovieBox& moov, const std::vector<TrackTables>& tables);

/// Reads a plain movie and holds it against the sums: numbers of samples, all in the file, their duration, the sync
/// samples, and edit lists that show something. Throws RefusedResult for a difference, PosixError.
void requireSums(FileManager& files, const Path& result, const std::vector<TrackSums>& sums);

}  // namespace tarn

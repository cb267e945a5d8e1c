#pragma once

#include <cstdint>
#include <optional>

#include "mp4/BoxWalker.h"
#include "mp4/ChunkOffsetTable.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// How a file's media lie to its `moov`.
struct MediaLayout {
  std::optional<uint64_t> firstMdat;  ///< where the first `mdat` begins
  bool isMdatBehindMoov = false;      ///< the first, or a later one

  bool isMoovFirst(const MP4BoxInfo& moov) const { return firstMdat && moov.offset < *firstMdat; }

  /// Which chunk offsets a change of the size of the `moov` makes wrong. Where media lie on both sides of it, those of
  /// the media ahead stay right.
  ChunkOffsetShift shift(const MP4BoxInfo& moov, int64_t delta) const;
};

/// Walks the top-level boxes. Moves the file's position; throws PosixError, and what requireWhole throws.
MediaLayout findMediaLayout(FileHandle& file, const MP4BoxInfo& moov);

/// For a walk over the top-level boxes that came to its end: a tail that is too short for a header is no box, anything
/// else that was not walked is a failure. Throws corruptedMP4 and ioError.
void requireWhole(const FileBoxWalker& walker, uint64_t fileSize);

}  // namespace tarn

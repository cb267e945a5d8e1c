#pragma once

#include <cstdint>
#include <optional>

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

/// Walks the top-level boxes. Moves the file's position; throws PosixError.
MediaLayout findMediaLayout(FileHandle& file, const MP4BoxInfo& moov);

}  // namespace tarn

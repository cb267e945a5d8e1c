#pragma once

#include <cstdint>
#include <optional>

#include "mp4/ChunkOffsetTable.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// Where a file's media are, seen from its `moov`, and where its boxes end.
struct MediaLayout {
  std::optional<uint64_t> firstMdat = {};  ///< where the first `mdat` begins
  bool isMdatBehindMoov = false;           ///< the first, or a later one
  bool isTailBehindMoov = false;           ///< bytes behind the `moov` that are no box
  bool isMdatCut = false;                  ///< the file ends inside an `mdat`
  uint64_t end = 0;                        ///< of the last box that is whole or an `mdat`; what follows is no box
  uint64_t fileSize = 0;

  bool isMoovFirst(const MP4BoxInfo& moov) const { return firstMdat && moov.offset < *firstMdat; }

  /// Which chunk offsets a change of the size of the `moov` makes wrong. Where media lie on both sides of it, those of
  /// the media ahead stay right.
  ChunkOffsetShift shift(const MP4BoxInfo& moov, int64_t delta) const;
};

/// Walks the top-level boxes. Moves the file's position. Throws PosixError, corruptedMP4 where the boxes end ahead of
/// the `moov`, and ioError where a header cannot be read.
MediaLayout findMediaLayout(FileHandle& file, const MP4BoxInfo& moov);

}  // namespace tarn

#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "movie/EditRules.h"
#include "mp4/BoxWalker.h"
#include "mp4/ChunkOffsetTable.h"
#include "platform/FileManager.h"

namespace tarn {

/// The top level of a file, and where its media are.
struct MediaLayout {
  std::vector<BoxHeader> boxes;  ///< all, as `rules.topLevel` walks; the file may cut off the last one
  uint64_t fileSize = 0;
  uint64_t end = 0;  ///< of the last box that is whole or an `mdat`; the bytes after it are the tail

  /// Moves the file's position. Throws MovieError: unreadable for a header that cannot be read, so that no box is ever
  /// missing because a read failed; damaged for more boxes than any real file has.
  static MediaLayout scan(FileHandle& file, const EditRules& rules);

  std::optional<BoxHeader> first(std::string_view type) const;
  std::optional<BoxHeader> last(std::string_view type) const;
  /// The `moov` that counts.
  std::optional<BoxHeader> moov(const EditRules& rules) const;

  bool hasMediaBehind(const BoxHeader& moov) const;
  bool isCut(const BoxHeader& box) const { return box.end() > fileSize; }
  bool isMdatCut() const { return !boxes.empty() && boxes.back().type == "mdat" && isCut(boxes.back()); }

  /// Which chunk offsets become wrong if the `moov` grows by so many bytes: those of the media after it.
  ChunkOffsetShift shift(const BoxHeader& moov, int64_t growth, const EditRules& rules) const;
  /// Where each `mdat` goes if they stand in a row from `start` on. Throws MovieError: doesNotFit.
  std::vector<MediaMove> moves(uint64_t start) const;
};

}  // namespace tarn

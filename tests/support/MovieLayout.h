#pragma once

#include <cstdint>
#include <vector>

#include "platform/Bytes.h"

namespace tarn::test {

/// Takes a file apart that has one `ftyp`, `moov` and `mdat`, and puts it together in another order, chunk offsets
/// corrected, so that the media stay whole. It has a walk and an arithmetic of its own.
class MovieLayout {
 public:
  explicit MovieLayout(const Bytes& file);

  Bytes ftyp;
  Bytes moov;   ///< with the offsets of the source; may be edited before build()
  Bytes media;  ///< the contents of the `mdat`

  /// Where the chunks begin in `media`, ascending.
  std::vector<uint64_t> chunks() const;

  /// Turns every `stco` into a `co64`.
  void useLongOffsets();

  struct Piece {
    enum class Kind { raw, moov, openMoov, mdat, longMdat, openMdat } kind;
    Bytes bytes = {};    ///< of a raw piece
    uint64_t begin = 0;  ///< of an `mdat`: the part of `media` that it holds
    uint64_t end = UINT64_MAX;
  };
  Bytes build(const std::vector<Piece>& pieces) const;

  /// The file with its `moov` ahead of its media.
  Bytes moovAhead() const { return build({{Piece::Kind::raw, ftyp}, {Piece::Kind::moov}, {Piece::Kind::mdat}}); }

 private:
  uint64_t mediaOffset_ = 0;
};

}  // namespace tarn::test

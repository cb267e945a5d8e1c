#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace tarn {

/// A box of a `moov` in memory. On the way to the sample tables and edit lists (moov, trak, mdia, minf, stbl, edts) it
/// is taken apart into its children (ISO/IEC 14496-12 4.2); every other box is kept as its bytes. Written again,
/// nothing is lost: boxes keep their order, the width of their size field, and what lies behind the last child.
struct MovieBox {
  std::string type;  ///< four bytes as they are in the file
  Bytes head;        ///< the header; its size field is made anew when the box is written
  std::vector<MovieBox> children;
  Bytes contents;  ///< all of it; where there are children, what lies behind the last one

  /// A whole `moov`. Throws AudioTrackReplacerError::corruptedMP4 where a box on the way reaches over its parent, and
  /// for more boxes than any real `moov` has.
  static MovieBox parse(ByteView moov);

  /// The first child at the end of this path; null where there is none.
  const MovieBox* find(std::initializer_list<std::string_view> path) const;
  MovieBox* find(std::initializer_list<std::string_view> path);

  /// Puts a child in the place of the first one of its type, or behind the last child.
  void put(MovieBox child);
  void removeAll(std::string_view childType);

  uint64_t size() const { return head.size() + contentSize(); }

  /// The box as bytes. Throws AudioTrackReplacerError::corruptedMP4 where a size does not fit its field.
  Bytes bytes() const;

 private:
  uint64_t contentSize() const;
  void appendTo(Bytes& target) const;
};

}  // namespace tarn

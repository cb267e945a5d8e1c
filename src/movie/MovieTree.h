#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "movie/EditRules.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// A box of a `moov` in memory, to be edited. On the way to the sample tables and edit lists (moov, trak, edts, mdia,
/// minf, stbl) it is taken apart into its children (ISO/IEC 14496-12 4.2); every other box is kept as its bytes.
/// Written again, nothing is lost: boxes keep their order, the width of their size field, and what lies after the last
/// child.
///
/// It is a tree, and not a buffer that edits are spliced into: parents get their sizes by themselves, an edit makes no
/// other place invalid, and any number of edits costs one pass over a `moov` of any length.
struct MovieBox {
  std::string type;  ///< four bytes as they are in the file
  Bytes head;        ///< the header; its size field is made anew when the box is written, unless it is 0
  std::vector<MovieBox> children = {};
  Bytes contents = {};   ///< all of it; where there are children, what lies after the last one
  uint64_t offset = 0;   ///< where it began in the bytes that were parsed
  uint64_t oldSize = 0;  ///< how long it was there, header included
  /// It reaches over the end of its parent: `contents` end there, and the size field stays as it is.
  bool isCut = false;

  /// A whole `moov`, or for a cut one all that is there of it. Throws MovieError: damaged for a box that `rules` do not
  /// let through, and for more boxes than any real `moov` has.
  static MovieBox parse(ByteView moov, const EditRules& rules);

  /// A whole box with an 8-byte header, not taken apart. Throws MovieError: damaged for fewer bytes.
  static MovieBox of(ByteView box);
  /// The same of these contents.
  static MovieBox of(std::string_view type, Bytes contents);

  /// The first child at the end of this path; null where there is none.
  const MovieBox* find(std::initializer_list<std::string_view> path) const;
  MovieBox* find(std::initializer_list<std::string_view> path);

  /// Puts a child in the place of the first one of its type, or after the last child.
  void put(MovieBox child);
  void removeAll(std::string_view childType);
  /// Puts a child, if there is one, in the place of the first one that `isOld` names, or after the last child; the
  /// other old ones go.
  template <typename IsOld>
  void replaceAll(IsOld isOld, std::optional<MovieBox> child) {
    const auto old = std::ranges::find_if(children, isOld);
    if (child && old == children.end()) {
      children.push_back(std::move(*child));
    } else if (old != children.end()) {
      const auto rest = child ? old + 1 : old;
      if (child) *old = std::move(*child);
      children.erase(std::remove_if(rest, children.end(), isOld), children.end());
    }
  }

  uint64_t size() const { return head.size() + contentSize(); }

  /// The box as bytes. Throws MovieError: doesNotFit.
  Bytes bytes() const;
  /// Writes the same, without a second copy of it in memory.
  void writeTo(FileHandle& target) const;
  /// The same of a box without children, with an 8-byte header: what the fields of `layout` count from.
  Bytes plainBytes() const;

 private:
  uint64_t contentSize() const;
  void appendTo(Bytes& target) const;
};

}  // namespace tarn

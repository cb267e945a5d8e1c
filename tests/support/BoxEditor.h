#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"

namespace tarn::test {

/// The tests' own editor of movies: a walk of its own, so that it shares no error with the code under test. All files
/// that it takes are well-formed, with 32-bit sizes.

/// Finds and damages boxes in the bytes of a file.
class BoxEditor {
 public:
  explicit BoxEditor(Bytes file) : bytes(std::move(file)) {}

  Bytes bytes;

  struct Found {
    size_t offset;
    size_t size;
    size_t end() const { return offset + size; }
  };

  /// The boxes at the end of a path from the top level, "moov/trak/mdia", in file order, or the first of them; a path
  /// goes on behind an `stsd` and a sample entry ("moov/trak/mdia/minf/stbl/stsd/avc1/avcC"). at() throws when
  /// there is none.
  std::vector<Found> all(std::string_view path) const;
  Found at(std::string_view path) const;

  /// The box's bytes.
  Bytes get(std::string_view path) const;

  uint32_t field(size_t offset) const;
  void setField(size_t offset, uint32_t value);
  void rename(std::string_view path, std::string_view type);

  /// Puts bytes in the place of a box, or at a place inside the given parent, and resizes the boxes around them.
  /// Nothing else is corrected: chunk offsets stay.
  void replace(const Found& box, const Bytes& replacement);
  void insert(std::string_view parentPath, size_t offset, const Bytes& box);

 private:
  void collect(std::string_view path, size_t begin, size_t end, std::vector<Found>& found) const;
  std::string_view typeAt(size_t offset) const;
  void splice(const Found& inside, size_t offset, size_t removed, const Bytes& added);
};

/// A box and what is in it, to be changed and put together again, down to the children of the sample entries.
struct BoxTree {
  std::string type;
  Bytes fields = {};  ///< what stands ahead of the children
  std::vector<BoxTree> children = {};

  explicit BoxTree(ByteView box);

  Bytes bytes() const;

  std::vector<BoxTree>::iterator child(const std::string& childType);

  /// The first box at the end of a path of types, "mdia/minf/stbl". Throws when there is none.
  BoxTree& at(const std::string& path);

  /// Of a `moov`: the first track with this handler; null without one.
  BoxTree* track(const std::string& handler);
};

/// Takes a file apart that has one `ftyp`, `moov` and `mdat`, and puts it together in another order, chunk offsets
/// corrected, so that the media stay whole.
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

  /// The same of pieces that these words name: "ftyp free mdat moov". "first" and "second" are halves of the media; an
  /// "open" box has no size; a "tail" is no box.
  Bytes build(const std::string& parts) const;
  Bytes moovAhead() const { return build("ftyp moov mdat"); }

 private:
  uint64_t mediaOffset_ = 0;
};

}  // namespace tarn::test

#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace tarn::test {

/// Finds and damages boxes in the bytes of a well-formed file with 32-bit sizes. It has a walk of its own, so that it
/// cannot share an error with the code under test.
class BoxEditor {
 public:
  explicit BoxEditor(Bytes file) : bytes(std::move(file)) {}

  Bytes bytes;

  struct Found {
    size_t offset;
    size_t size;
    size_t end() const { return offset + size; }
  };

  /// The first box at the end of a path from the top level, "moov/trak/mdia"; a path goes on behind an `stsd` and a
  /// visual sample entry ("moov/trak/mdia/minf/stbl/stsd/avc1/avcC"). Throws when there is none.
  Found at(std::string_view path) const;

  /// The box's bytes.
  Bytes get(std::string_view path) const;

  /// All boxes of one type at the top level, in file order.
  std::vector<Found> topLevel(std::string_view type) const;

  uint32_t field(size_t offset) const;
  void setField(size_t offset, uint32_t value);
  void rename(std::string_view path, std::string_view type);

  /// Cuts a box out of its parents and makes them smaller, or puts one at a place inside the given parent path.
  /// Nothing else is corrected: chunk offsets stay.
  void remove(std::string_view path);
  void insert(std::string_view parentPath, size_t offset, const Bytes& box);

 private:
  std::optional<Found> find(std::string_view path, size_t begin, size_t end) const;
  void resizeParents(std::string_view path, int64_t delta);
};

}  // namespace tarn::test

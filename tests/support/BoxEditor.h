#pragma once

#include <cstdint>
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

  /// The boxes at the end of a path from the top level, "moov/trak/mdia", in file order, or the first of them; a path
  /// goes on behind an `stsd` and a visual sample entry ("moov/trak/mdia/minf/stbl/stsd/avc1/avcC"). at() throws when
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

}  // namespace tarn::test

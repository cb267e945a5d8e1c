#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/BitReader.h"
#include "platform/Bytes.h"
#include "platform/Error.h"

namespace tarn {

/// A decoder configuration record that cannot be written, since a value does not fit its field, or that cannot be
/// read, since it ends too early.
class ConfigurationBoxError : public Error {
 public:
  explicit ConfigurationBoxError(const std::string& description) : Error("ConfigurationBox", -1, description) {}
};

/// The lengthSizeMinusOne for a NAL length of 1, 2 or 4 bytes; any other throws ConfigurationBoxError.
uint8_t lengthSizeField(int nalLengthSize);

/// True if one of the units has bytes.
bool holdsUnit(const std::vector<Bytes>& units);

/// RecordWriter and RecordReader have the same operations, so that the layout of a record is one function template
/// which writes with the one and reads with the other. Fields are packed most significant bit first; lists begin on a
/// byte boundary.
class RecordWriter {
 public:
  /// The low `width` bits of a value.
  template <typename T>
  void field(const T& value, int width) {
    append(static_cast<uint64_t>(value), width);
  }

  /// Reserved bits, which are written as given.
  void reserved(uint64_t value, int width) { append(value, width); }

  /// Bits that hold the number of elements, then the elements as `describe(element)` lays them out. Throws
  /// ConfigurationBoxError when the number does not fit.
  template <typename T, typename Describe>
  void list(const std::vector<T>& elements, int countWidth, size_t /*smallestElement*/, Describe describe) {
    checkFits(elements.size(), countWidth, "parameter sets");
    append(elements.size(), countWidth);
    for (const T& element : elements) describe(element);
  }

  /// A list of NAL units, each with a 16-bit length. Throws ConfigurationBoxError for a longer one.
  void units(const std::vector<Bytes>& units, int countWidth);

  /// Whether an optional part of `size` bytes follows: on writing it always does.
  bool has(size_t /*size*/) const { return true; }

  /// A last part that a reader can do without.
  template <typename Describe>
  void optional(Describe describe) {
    describe();
  }

  const Bytes& bytes() const { return bytes_; }

  /// The record as a box. Throws ConfigurationBoxError when its size does not fit 32 bits.
  Bytes box(std::string_view type) const;

 private:
  void append(uint64_t value, int width);
  static void checkFits(size_t value, int width, const char* what);

  Bytes bytes_;
  int freeBits_ = 0;  // in the last byte
};

/// Reads bytes that belong to somebody else and must outlive it. All operations throw ConfigurationBoxError when the
/// bytes end too early.
class RecordReader {
 public:
  explicit RecordReader(ByteView record) : bits_(record) {}

  template <typename T>
  void field(T& value, int width) {
    value = static_cast<T>(take(width));
  }

  /// Reserved bits, whatever their value.
  void reserved(uint64_t /*value*/, int width) { take(width); }

  /// No memory is taken for more elements of at least `smallestElement` bytes than the record can still hold.
  template <typename T, typename Describe>
  void list(std::vector<T>& elements, int countWidth, size_t smallestElement, Describe describe) {
    uint64_t count = take(countWidth);
    if (count > remaining() / smallestElement) throw cutOff();
    elements.resize(count);
    for (T& element : elements) describe(element);
  }

  void units(std::vector<Bytes>& units, int countWidth);

  bool has(size_t size) const { return remaining() >= size; }

  template <typename Describe>
  void optional(Describe describe) {
    try {
      describe();
    } catch (const ConfigurationBoxError&) {
      // Other bytes come after the record.
    }
  }

 private:
  uint64_t take(int width);
  size_t remaining() const { return bits_.bytes.size() - bits_.bytePosition; }  // bytes, the begun one included
  static ConfigurationBoxError cutOff();

  BitReader bits_;
};

}  // namespace tarn

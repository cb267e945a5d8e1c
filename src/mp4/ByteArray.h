#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Bytes.h"
#include "platform/Error.h"

namespace tarn {

/// The failures of a ByteArray.
class ByteArrayError : public Error {
 public:
  enum class Case { insufficientData, invalidOffset };

  /// `detail` says which data, how many there are and how many there must be.
  static ByteArrayError insufficientData(const std::string& detail = "");
  static ByteArrayError invalidOffset();

  Case kind() const { return kind_; }

 private:
  ByteArrayError(Case kind, std::string description);
  Case kind_;
};

/// A big-endian cursor over bytes that somebody else owns and that must outlive it. A read that fails leaves the
/// position where it was.
struct ByteArray {
  explicit ByteArray(ByteView bytes) : data(bytes) {}

  ByteView data;
  size_t position = 0;  ///< bytes from the start; may be set to any value

  size_t remaining() const { return position < data.size() ? data.size() - position : 0; }

  /// All reads throw ByteArrayError::insufficientData when fewer bytes remain.
  uint32_t readUInt32();
  uint64_t readUInt64();
  Bytes readBytes(size_t count);

  /// Text of `count` bytes; bytes that are not UTF-8 give the empty text. Box types are read with this rule.
  std::string readUTF8Bytes(size_t count);

  /// Sets the position after the version and flags with which a full box begins (ISO/IEC 14496-12 4.2). Throws
  /// ByteArrayError::invalidOffset when the data are shorter than those 4 bytes.
  void skipVersionAndFlags();

 private:
  ByteView take(size_t count);
};

}  // namespace tarn

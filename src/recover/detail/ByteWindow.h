#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// A part of a file that is read from front to back, with some look ahead.
class ByteWindow {
 public:
  /// The bytes from `begin` to `end`, at most to the end of the file. Moves the file's position.
  ByteWindow(FileHandle& file, uint64_t begin, uint64_t end);

  uint64_t end() const { return end_; }

  /// How many bytes were read and searched so far, those that came more than once too.
  uint64_t work() const { return work_; }

  /// Up to so many bytes, fewer at the end; valid until the next call.
  ByteView at(uint64_t offset, size_t count);

  /// False if a start code would begin in this range, 00 00 00 to 00 00 02, which no unit may hold (ITU-T H.264 and
  /// H.265 7.4.1, 7.4.2.1). Ranges that are asked for one after the other cost one read of each byte.
  bool isFreeOfStartCodes(uint64_t begin, uint64_t end);

 private:
  void scanTo(uint64_t end);

  FileHandle& file_;
  uint64_t end_;
  Bytes buffer_;
  uint64_t start_;  ///< of the buffer
  uint64_t work_ = 0;

  // There is no start code from `freeFrom_` to `freeTo_`, and one at `freeTo_` if `isHit_`.
  uint64_t freeFrom_;
  uint64_t freeTo_;
  bool isHit_ = false;
};

}  // namespace tarn

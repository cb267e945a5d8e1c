#pragma once

#include <cstdlib>
#include <exception>
#include <functional>

#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "platform/memory/InMemoryFileManager.h"

namespace tarn::fuzz {

/// Ends the process where a promise is broken, so that the fuzzer keeps the input.
inline void require(bool promise) {
  if (!promise) std::abort();
}

/// Takes values off the front of an input.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : bytes_(data, size) {}

  uint8_t byte() { return number(1) & 0xFF; }
  uint64_t number(size_t width) {
    uint64_t value = 0;
    for (uint8_t b : take(width)) value = value << 8 | b;
    return value;
  }
  ByteView take(size_t count) {
    ByteView front = bytes_.first(count < bytes_.size() ? count : bytes_.size());
    bytes_ = bytes_.subspan(front.size());
    return front;
  }
  ByteView rest() { return take(bytes_.size()); }

 private:
  ByteView bytes_;
};

/// A movie of unknown content on a disk of its own, in memory.
class Movie {
 public:
  explicit Movie(ByteView content);

  InMemoryFileManager files;
  const Path path = "/home/Documents/movie.mp4";

  /// Lets a repair work on the file. Whatever it does, no other file is left. Where it throws a failure of the system's
  /// own kind, the file is as it was; any other exception, and a crash, is a fault. True where it came to its end.
  bool survives(const std::function<void()>& repair);

  /// The file's first track of a type can be read as a whole: headers and sample table.
  bool isReadable(MP4TrackType type);

  Bytes content() { return readFile(files, path); }

 private:
  size_t entries();
};

}  // namespace tarn::fuzz

#pragma once

#include <cstdlib>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>

#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "platform/Error.h"
#include "platform/FileManager.h"
#include "platform/memory/InMemoryFileManager.h"

namespace tarn::fuzz {

/// Ends the process where a promise is broken, so that the fuzzer keeps the input.
inline void require(bool promise) {
  if (!promise) std::abort();
}

/// Does what may refuse its input with a failure of the system's own kind; any other exception, and a crash, is a
/// fault. True where it came to its end.
template <typename Work>
bool finishes(Work&& work) {
  try {
    work();
    return true;
  } catch (const Error&) {
    return false;
  }
}

/// Takes values off the front of an input.
class Input {
 public:
  explicit Input(ByteView bytes) : bytes_(bytes) {}

  /// A big-endian number of the type's width, or of `width` bytes; of those that are left where there are fewer.
  template <typename T>
  T number(size_t width = sizeof(T)) {
    uint64_t value = 0;
    for (uint8_t b : take(width)) value = value << 8 | b;
    return static_cast<T>(value);
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

/// What a fuzzer does with one input. Each has its own.
void run(Input input);

/// A movie of unknown content on a disk of its own, in memory.
class Movie {
 public:
  explicit Movie(ByteView content);

  InMemoryFileManager files;
  const Path path = "/home/Documents/movie.mp4";

  /// Lets a repair work on the file. Whatever it does, no other file is left; where it does not finish, the file is as
  /// it was. Where the file's first track of a kept type could be read as a whole, headers and sample table, it still
  /// can. True where the repair finished.
  bool survives(const std::function<void()>& repair, std::initializer_list<MP4TrackType> kept = {});

  Bytes content() { return readFile(files, path); }
  std::unique_ptr<FileHandle> open() { return files.open(path, OpenMode::reading); }

  /// The `stbl` of the first track of a type. The file is read from its position on.
  static std::optional<MP4BoxInfo> sampleTable(FileHandle& file, MP4TrackType type);

 private:
  bool isReadable(MP4TrackType type);
};

}  // namespace tarn::fuzz

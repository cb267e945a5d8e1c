#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// An open file that holds bytes of layered files. All who read it share its position.
struct ByteStore {
  std::unique_ptr<FileHandle> handle;
  Path path;
};
using ByteStorePointer = std::shared_ptr<ByteStore>;

/// A file as a list of extents, one after the other without gaps. Each is a part of a store. Extents that continue
/// each other are one, so memory grows with the number of changes, not with the bytes. Not thread-safe.
class LayeredFile {
 public:
  struct Extent {
    uint64_t size = 0;
    ByteStorePointer store = {};  ///< null: zeros
    uint64_t offset = 0;          ///< in the store

    Extent part(uint64_t from, uint64_t count) const { return {count, store, store ? offset + from : 0}; }
  };
  using Extents = std::map<uint64_t, Extent>;  ///< by the offset in this file

  LayeredFile() = default;
  /// Reads as the whole store.
  LayeredFile(ByteStorePointer store, uint64_t size);

  uint64_t size() const;
  const Extents& extents() const { return extents_; }

  /// True if the file was laid over a file of the base, changed since or not.
  bool isLaidOver() const { return origin_ != nullptr; }
  /// True if it still is what it was laid over.
  bool isUntouched() const;

  /// Fewer bytes than asked: the end of this file, or a store that has become shorter. Throws PosixError.
  size_t read(uint64_t at, std::span<uint8_t> target) const;

  /// The extents of a part of the file, cut to it, as far as the file goes.
  std::vector<Extent> parts(uint64_t at, uint64_t count) const;

  /// Puts an extent over what is at `at`. Zeros fill the gap past the end. Throws PosixError (EFBIG).
  void put(uint64_t at, Extent extent);

  /// Cuts the file, or extends it with zeros. Throws PosixError (EFBIG).
  void resize(uint64_t size);

 private:
  /// Makes an extent begin at `at`, or returns the end if the file ends there.
  Extents::iterator split(uint64_t at);
  /// Joins an extent with the one before it, if it continues that one.
  void join(Extents::iterator extent);

  Extents extents_;
  ByteStorePointer origin_;
  uint64_t originSize_ = 0;
};

}  // namespace tarn

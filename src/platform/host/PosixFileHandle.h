#pragma once

#include <string>

#include "platform/FileManager.h"

namespace tarn {

/// A file descriptor behind FileHandle. It keeps its own position, so that no other user of the file can move it.
class PosixFileHandle : public FileHandle {
 public:
  /// Opens a regular file. Throws PosixError: EISDIR for a directory, ESPIPE for anything else that has no positions.
  PosixFileHandle(const Path& path, OpenMode mode);
  ~PosixFileHandle() override;
  PosixFileHandle(const PosixFileHandle&) = delete;
  PosixFileHandle& operator=(const PosixFileHandle&) = delete;

  Bytes read(size_t count) override;
  size_t readInto(std::span<uint8_t> target) override;
  void write(ByteView bytes) override;
  void seek(uint64_t offset) override;
  uint64_t offset() const override;
  uint64_t seekToEnd() override;
  uint64_t copyRange(FileHandle& target, uint64_t count) override;
  void truncate(uint64_t size) override;
  void synchronize() override;
  void close() override;

  /// Makes this empty file share all extents of `source`. False if the file system cannot.
  bool cloneFrom(const PosixFileHandle& source);

 private:
  uint64_t size() const;
  /// Copies inside the kernel until it has nothing more to give or refuses; returns the bytes copied.
  uint64_t copyInKernel(PosixFileHandle& target, uint64_t count);
  void startWriting(uint64_t count);  ///< of the bytes that were written last
  void requireOpen() const;
  [[noreturn]] void fail(int errnum, const char* operation) const;

  std::string name_;
  int descriptor_ = -1;
  uint64_t offset_ = 0;
};

}  // namespace tarn

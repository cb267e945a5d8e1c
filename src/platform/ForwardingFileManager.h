#pragma once

#include <utility>

#include "platform/FileManager.h"

namespace tarn {

/// Passes every call on to another handle. A subclass changes what it wants to change.
class ForwardingFileHandle : public FileHandle {
 public:
  explicit ForwardingFileHandle(std::unique_ptr<FileHandle> base) : base_(std::move(base)) {}

  Bytes read(size_t count) override { return base_->read(count); }
  size_t readInto(std::span<uint8_t> target) override { return base_->readInto(target); }
  void write(ByteView bytes) override { base_->write(bytes); }
  void seek(uint64_t offset) override { base_->seek(offset); }
  uint64_t offset() const override { return base_->offset(); }
  uint64_t seekToEnd() override { return base_->seekToEnd(); }
  /// Hands the base of a forwarding target to its own base, so that the two know each other as handles of one kind.
  uint64_t copyRange(FileHandle& target, uint64_t count) override {
    auto* const forwarding = dynamic_cast<ForwardingFileHandle*>(&target);
    return base_->copyRange(forwarding ? *forwarding->base_ : target, count);
  }
  void truncate(uint64_t size) override { base_->truncate(size); }
  void synchronize() override { base_->synchronize(); }
  void close() override { base_->close(); }

 protected:
  FileHandle& base() { return *base_; }

 private:
  std::unique_ptr<FileHandle> base_;
};

/// Passes every call on to another file manager, which must outlive it.
class ForwardingFileManager : public FileManager {
 public:
  explicit ForwardingFileManager(FileManager& base) : base_(base) {}

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override { return base_.open(path, mode); }
  bool fileExists(const Path& path) override { return base_.fileExists(path); }
  std::optional<FileAttributes> attributes(const Path& path) override { return base_.attributes(path); }
  std::vector<std::string> contentsOfDirectory(const Path& path) override { return base_.contentsOfDirectory(path); }
  void createDirectory(const Path& path) override { base_.createDirectory(path); }
  void moveItem(const Path& from, const Path& to) override { base_.moveItem(from, to); }
  void copyItem(const Path& from, const Path& to) override { base_.copyItem(from, to); }
  void linkItem(const Path& from, const Path& to) override { base_.linkItem(from, to); }
  void removeItem(const Path& path) override { base_.removeItem(path); }
  void replaceItem(const Path& target, const Path& source) override { base_.replaceItem(target, source); }
  void synchronizeDirectory(const Path& path) override { base_.synchronizeDirectory(path); }
  std::optional<uint64_t> freeSpace(const Path& path) override { return base_.freeSpace(path); }
  Path documentsDirectory(bool create) override { return base_.documentsDirectory(create); }
  Path temporaryDirectory() override { return base_.temporaryDirectory(); }

 protected:
  FileManager& base() { return base_; }

 private:
  FileManager& base_;
};

}  // namespace tarn

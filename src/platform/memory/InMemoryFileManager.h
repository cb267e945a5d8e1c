#pragma once

#include "platform/FileManager.h"

namespace tarn {

/// What a power cut does to names that were never flushed; bytes that were never flushed are lost in either case. Code
/// that keeps to the contract of FileManager survives both.
enum class PowerCut {
  losesNames,  ///< every directory is as it was when it was last flushed
  keepsNames,  ///< all names are as they were last seen
};

/// A file system in memory that behaves as a host's does, can run full, and can lose its power. Paths count from one
/// root; there are no links to names and no second file system. Every change moves its clock on by a millisecond, so
/// that no two changes have the same time. Thread-safe.
class InMemoryFileManager : public FileManager {
 public:
  static constexpr uint64_t initialFreeSpace = uint64_t{1} << 30;  ///< bytes

  explicit InMemoryFileManager(Path home = "/home");
  ~InMemoryFileManager() override;

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override;
  bool fileExists(const Path& path) override;
  std::optional<FileAttributes> attributes(const Path& path) override;
  std::vector<std::string> contentsOfDirectory(const Path& path) override;
  void createDirectory(const Path& path) override;
  void moveItem(const Path& from, const Path& to) override;
  void copyItem(const Path& from, const Path& to) override;
  void linkItem(const Path& from, const Path& to) override;
  void removeItem(const Path& path) override;
  void replaceItem(const Path& target, const Path& source) override;
  void synchronizeDirectory(const Path& path) override;
  std::optional<uint64_t> freeSpace(const Path& path) override;
  Path documentsDirectory(bool create) override;
  Path temporaryDirectory() override;

  /// Cuts the power and starts again: what was not made durable is gone, and every open handle is dead (EIO).
  void losePower(PowerCut cut = PowerCut::losesNames);

  /// Sets the bytes that may still be written. A write beyond them stores what fits and fails with ENOSPC.
  void setFreeSpace(uint64_t bytes);

 private:
  struct Node;
  struct Disk;
  class Handle;
  using NodePointer = std::shared_ptr<Node>;

  Path home_;
  std::shared_ptr<Disk> disk_;
};

}  // namespace tarn

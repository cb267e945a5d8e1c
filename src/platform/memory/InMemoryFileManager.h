#pragma once

#include "platform/FileManager.h"

namespace tarn {

/// What a power cut does to names that were never flushed; bytes that were never flushed are lost in either case. Code
/// that keeps to the contract of FileManager survives both.
enum class PowerCut {
  losesNames,  ///< every directory is as it was when it was last flushed
  keepsNames,  ///< all names are as they were last seen
};

/// A file system in memory that behaves as a host's does and can lose its power. Paths count from one root; there are
/// no links to names and no second file system, and it never runs full; a file can have up to one GiB (EFBIG). Every
/// change moves its clock on by a millisecond, so that no two changes have the same time. Thread-safe.
class InMemoryFileManager : public FileManager {
 public:
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
  /// One GiB at all times.
  std::optional<uint64_t> freeSpace(const Path& path) override;
  Path documentsDirectory(bool create) override;
  Path temporaryDirectory() override;

  /// Cuts the power and starts again: what was not made durable is gone, and every open handle is dead (EIO).
  void losePower(PowerCut cut = PowerCut::losesNames);

 private:
  struct Node;
  struct Disk;
  class Handle;
  using NodePointer = std::shared_ptr<Node>;

  Path home_;
  std::shared_ptr<Disk> disk_;
};

}  // namespace tarn

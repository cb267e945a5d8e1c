#pragma once

#include <map>
#include <memory>
#include <set>

#include "platform/ForwardingFileManager.h"

namespace tarn {

class DryRunFile;

/// Files on which the steps can work without a change to any disk: what exists is read, and what is written stays in
/// memory, where a copy of a file's part is no more than a note of where that part lies. So a media file of any size
/// can be repaired on trial, and the result can be read. Only for the thread that made it.
class DryRunFiles : public ForwardingFileManager {
 public:
  /// Bytes that may be written before a write is refused (ENOSPC): a movie's tables and its small boxes have room.
  static constexpr uint64_t mostBytes = 512 << 20;

  explicit DryRunFiles(FileManager& base);
  ~DryRunFiles() override;

  /// True when the file at `path` now differs from the one on disk.
  bool isChanged(const Path& path);

  /// True when another file was put in the place of the one on disk.
  bool isReplaced(const Path& path) const { return replaced_.contains(path); }

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override;
  bool fileExists(const Path& path) override;
  std::optional<FileAttributes> attributes(const Path& path) override;
  void removeItem(const Path& path) override;
  void replaceItem(const Path& target, const Path& source) override;
  /// Not known: there is no disk to fill.
  std::optional<uint64_t> freeSpace(const Path& path) override;
  Path temporaryDirectory() override;

 private:
  std::map<Path, std::shared_ptr<DryRunFile>> written_;
  std::set<Path> replaced_;
  uint64_t bytesLeft_ = mostBytes;
};

}  // namespace tarn

#pragma once

#include "platform/FileManager.h"
#include "platform/host/PosixFileHandle.h"

namespace tarn {

/// The files of a Linux host. What belongs to the system stands under one home directory: Documents is
/// `<home>/Documents`, the temporary directory `<home>/tmp`.
class PosixFileManager : public FileManager {
 public:
  explicit PosixFileManager(Path home) : home_(std::move(home)) {}

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

 private:
  Path home_;
};

}  // namespace tarn

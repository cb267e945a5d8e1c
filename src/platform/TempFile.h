#pragma once

#include <utility>

#include "platform/FileManager.h"

namespace tarn {

/// Owns the name of a file in the making: deletes it at the end of the scope unless it was kept.
class TempFile {
 public:
  TempFile(FileManager& files, Path path) : files_(&files), path_(std::move(path)) {}
  ~TempFile() {
    if (files_) removeIfExists(*files_, path_);
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const Path& path() const { return path_; }

  /// Call once the file has got its final place, or is somebody else's to delete.
  void keep() { files_ = nullptr; }

 private:
  FileManager* files_;
  Path path_;
};

}  // namespace tarn

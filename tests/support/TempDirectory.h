#pragma once

#include <system_error>
#include <utility>

#include "platform/FileManager.h"

namespace tarn::test {

/// A fresh directory, deleted with all that is in it at the end of the scope.
class TempDirectory {
 public:
  explicit TempDirectory(const Path& above = std::filesystem::temp_directory_path())
      : path_(above / ("tarn-" + makeUUID())) {
    std::filesystem::create_directory(path_);
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const Path& path() const { return path_; }
  Path operator/(const std::string& name) const { return path_ / name; }

 private:
  Path path_;
};

}  // namespace tarn::test

#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "platform/FileManager.h"

namespace tarn::test {

/// A fresh directory that goes with its test.
class TempDirectory {
 public:
  TempDirectory() {
    std::string name = std::filesystem::temp_directory_path() / "tarn-test-XXXXXX";
    if (!mkdtemp(name.data())) throw std::runtime_error("cannot make a temporary directory");
    path_ = name;
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

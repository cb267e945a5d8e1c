#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "platform/host/PosixFileManager.h"
#include "support/FailureOf.h"
#include "support/LogCapture.h"
#include "support/TempDirectory.h"

namespace tarn::test {

/// A directory of the test's own with one file in it. The log is taken.
class FileTest : public testing::Test {
 protected:
  Path write(const Bytes& bytes) {
    writeFileAtomically(files_, file_, bytes);
    return file_;
  }
  Bytes written() { return readFile(files_, file_); }
  std::unique_ptr<FileHandle> open(const Bytes& bytes) { return files_.open(write(bytes), OpenMode::reading); }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  Path file_ = directory_ / "clip.mp4";
  LogCapture log_;
};

}  // namespace tarn::test

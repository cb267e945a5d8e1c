#pragma once

#include <optional>

#include "platform/Error.h"
#include "platform/ForwardingFileManager.h"

namespace tarn {

/// Remembers a read that failed. For readers that search: they take what they cannot read as not there, and their
/// caller asks the watch afterwards whether that was the reason.
class ReadWatch : public ForwardingFileHandle {
  template <typename Work>
  auto watched(Work work) {
    try {
      return work();
    } catch (const PosixError& error) {
      if (!failure_) failure_ = error;
      throw;
    }
  }

 public:
  using ForwardingFileHandle::ForwardingFileHandle;

  Bytes read(size_t count) override {
    return watched([&] { return base().read(count); });
  }
  size_t readInto(std::span<uint8_t> target) override {
    return watched([&] { return base().readInto(target); });
  }
  void seek(uint64_t offset) override {
    watched([&] { base().seek(offset); });
  }
  uint64_t seekToEnd() override {
    return watched([&] { return base().seekToEnd(); });
  }

  /// Opens a file for `work` and returns what that returns. Throws PosixError if a read failed meanwhile, whatever
  /// `work` made of it.
  template <typename Work>
  static auto reading(FileManager& files, const Path& path, Work work) {
    ReadWatch file(files.open(path, OpenMode::reading));
    try {
      auto result = work(static_cast<FileHandle&>(file));
      file.throwFailure();
      return result;
    } catch (const Error&) {
      file.throwFailure();
      throw;
    }
  }

  /// The first failure; nothing while all has been read.
  const std::optional<PosixError>& failure() const { return failure_; }

 private:
  void throwFailure() const {
    if (failure_) throw *failure_;
  }

  std::optional<PosixError> failure_;
};

}  // namespace tarn

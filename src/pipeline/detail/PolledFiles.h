#pragma once

#include <algorithm>
#include <atomic>
#include <memory>

#include "pipeline/CancellationToken.h"
#include "platform/Error.h"
#include "platform/ForwardingFileManager.h"

namespace tarn {

/// The files of a run: each read, write and copy first checks whether the run was asked to stop, and throws
/// CancellationError if so. A copy checks every 10 MiB. Remembers a disk that was full, since a worker makes a failure
/// of its own of that.
class PolledFiles : public ForwardingFileManager {
 public:
  PolledFiles(FileManager& base, std::shared_ptr<CancellationToken> token)
      : ForwardingFileManager(base), token_(std::move(token)) {}

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(base().open(path, mode), *this);
  }
  bool wasDiskFull() const { return wasDiskFull_; }

 private:
  class Handle : public ForwardingFileHandle {
   public:
    Handle(std::unique_ptr<FileHandle> base, PolledFiles& files)
        : ForwardingFileHandle(std::move(base)), files_(files), token_(files.token_) {}

    Bytes read(size_t count) override {
      token_->throwIfCancelled();
      return base().read(count);
    }
    size_t readInto(std::span<uint8_t> target) override {
      token_->throwIfCancelled();
      return base().readInto(target);
    }
    void write(ByteView bytes) override {
      token_->throwIfCancelled();
      files_.noting([&] { base().write(bytes); });
    }
    uint64_t copyRange(FileHandle& target, uint64_t count) override {
      constexpr uint64_t piece = 10'485'760;
      uint64_t done = 0;
      for (uint64_t copied = 1; copied > 0 && done < count; done += copied) {
        token_->throwIfCancelled();
        files_.noting([&] { copied = ForwardingFileHandle::copyRange(target, std::min(count - done, piece)); });
      }
      return done;
    }
    void synchronize() override {
      files_.noting([&] { base().synchronize(); });
    }
    void close() override {
      files_.noting([&] { base().close(); });
    }

   private:
    PolledFiles& files_;
    const std::shared_ptr<CancellationToken> token_;
  };

  void noting(const auto& write) {
    try {
      write();
    } catch (const Error& failure) {
      if (isDiskFull(failure)) wasDiskFull_ = true;
      throw;
    }
  }

  const std::shared_ptr<CancellationToken> token_;
  std::atomic<bool> wasDiskFull_ = false;
};

}  // namespace tarn

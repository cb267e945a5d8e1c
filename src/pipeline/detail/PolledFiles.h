#pragma once

#include <algorithm>
#include <memory>

#include "pipeline/CancellationToken.h"
#include "platform/ForwardingFileManager.h"

namespace tarn {

/// The files of a run: each read, write and copy first checks whether the run was asked to stop, and throws
/// CancellationError if so. A copy checks every 10 MiB.
class PolledFiles : public ForwardingFileManager {
 public:
  PolledFiles(FileManager& base, std::shared_ptr<CancellationToken> token)
      : ForwardingFileManager(base), token_(std::move(token)) {}

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(base().open(path, mode), token_);
  }

 private:
  class Handle : public ForwardingFileHandle {
   public:
    Handle(std::unique_ptr<FileHandle> base, std::shared_ptr<CancellationToken> token)
        : ForwardingFileHandle(std::move(base)), token_(std::move(token)) {}

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
      base().write(bytes);
    }
    uint64_t copyRange(FileHandle& target, uint64_t count) override {
      constexpr uint64_t piece = 10'485'760;
      uint64_t done = 0;
      for (uint64_t copied = 1; copied > 0 && done < count; done += copied) {
        token_->throwIfCancelled();
        copied = ForwardingFileHandle::copyRange(target, std::min(count - done, piece));
      }
      return done;
    }

   private:
    const std::shared_ptr<CancellationToken> token_;
  };

  const std::shared_ptr<CancellationToken> token_;
};

}  // namespace tarn

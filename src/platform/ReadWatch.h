#pragma once

#include <memory>
#include <optional>
#include <utility>

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
      if (!*failure_) *failure_ = error;
      throw;
    }
  }

 public:
  /// The first failure of all that share it; nothing while all has been read.
  using Failure = std::shared_ptr<std::optional<PosixError>>;

  explicit ReadWatch(std::unique_ptr<FileHandle> file, Failure failure = std::make_shared<std::optional<PosixError>>())
      : ForwardingFileHandle(std::move(file)), failure_(std::move(failure)) {}

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

  const std::optional<PosixError>& failure() const { return *failure_; }
  /// Throws that failure, if there is one.
  void requireReadable() const {
    if (*failure_) throw **failure_;
  }

 private:
  Failure failure_;
};

/// The same for every file that is opened through it. Serves one thread.
class WatchedFiles : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<ReadWatch>(ForwardingFileManager::open(path, mode), failure_);
  }
  void requireReadable() const {
    if (*failure_) throw **failure_;
  }

 private:
  ReadWatch::Failure failure_ = std::make_shared<std::optional<PosixError>>();
};

/// Returns what `work` makes of a watch: of a ReadWatch or of WatchedFiles. Throws PosixError if a read failed
/// meanwhile, whatever `work` made of that.
template <typename Watch, typename Work>
auto readWatched(Watch&& watch, Work work) {
  try {
    auto result = work(watch);
    watch.requireReadable();
    return result;
  } catch (const Error&) {
    watch.requireReadable();
    throw;
  }
}

}  // namespace tarn

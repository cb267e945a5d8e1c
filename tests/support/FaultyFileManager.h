#pragma once

#include <atomic>
#include <cerrno>
#include <functional>
#include <mutex>
#include <set>

#include "platform/Error.h"
#include "platform/ForwardingFileManager.h"

namespace tarn::test {

enum class FileOperation {
  open,
  read,  // copyRange counts as one, and as one write
  write,
  truncate,
  flush,
  close,
  list,
  createDirectory,
  move,
  copy,
  link,
  remove,
  replace,
};

/// The operations that change something, or may do so, and those that only look.
inline const std::set<FileOperation> changes = {
    FileOperation::open,  FileOperation::write,           FileOperation::truncate, FileOperation::flush,
    FileOperation::close, FileOperation::createDirectory, FileOperation::move,     FileOperation::copy,
    FileOperation::link,  FileOperation::remove,          FileOperation::replace};
inline const std::set<FileOperation> looks = {FileOperation::read, FileOperation::list};

/// Which call fails, and how.
struct Fault {
  enum class Effect {
    none,  ///< the call has no effect
    half,  ///< a write has written the first half of its bytes; any other call has no effect
    whole  ///< the call has done all its work, and fails at its end
  };

  uint64_t call = 1;     ///< 1-based, among the calls that count, from the moment of arming
  int errnum = EIO;      ///< 0: the call strikes and then works
  bool lasting = false;  ///< all later calls that count fail too, without effect: the process is dead
  Effect effect = Effect::none;
  std::set<FileOperation> among = {};  ///< the operations that count; all when empty
  std::function<void()> strike = {};   ///< runs after the effect, ahead of the failure: a kill, for one
};

/// Counts the operations on files and fails the one that a test chooses. Asking (exists, attributes, free space,
/// positions) neither counts nor fails. Thread-safe.
class FaultyFileManager : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;

  void arm(Fault fault) {
    std::lock_guard guard(mutex_);
    fault_ = std::move(fault);
    calls_ = 0;
  }
  void disarm() {
    std::lock_guard guard(mutex_);
    fault_.reset();
  }
  /// Does a piece of work again and again, the fault at call 1, 2, 3, ... in turn, until it does not happen any more;
  /// returns how often it did.
  uint64_t sweep(Fault fault, const std::function<void(uint64_t call)>& work) {
    for (fault.call = 1;; ++fault.call) {
      arm(fault);
      work(fault.call);
      if (!fired()) return fault.call - 1;
    }
  }
  /// Calls that counted since the last arming.
  uint64_t calls() const {
    std::lock_guard guard(mutex_);
    return calls_;
  }
  /// True when the fault that was armed last has happened.
  bool fired() const {
    std::lock_guard guard(mutex_);
    return fault_ && calls_ >= fault_->call;
  }

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return perform(FileOperation::open,
                   [&] { return std::make_unique<Handle>(*this, ForwardingFileManager::open(path, mode)); });
  }
  std::vector<std::string> contentsOfDirectory(const Path& path) override {
    return perform(FileOperation::list, [&] { return base().contentsOfDirectory(path); });
  }
  void createDirectory(const Path& path) override {
    perform(FileOperation::createDirectory, [&] { base().createDirectory(path); });
  }
  void moveItem(const Path& from, const Path& to) override {
    perform(FileOperation::move, [&] { base().moveItem(from, to); });
  }
  void copyItem(const Path& from, const Path& to) override {
    perform(FileOperation::copy, [&] { base().copyItem(from, to); });
  }
  void linkItem(const Path& from, const Path& to) override {
    perform(FileOperation::link, [&] { base().linkItem(from, to); });
  }
  void removeItem(const Path& path) override {
    perform(FileOperation::remove, [&] { base().removeItem(path); });
  }
  void replaceItem(const Path& target, const Path& source) override {
    perform(FileOperation::replace, [&] { base().replaceItem(target, source); });
  }
  void synchronizeDirectory(const Path& path) override {
    perform(FileOperation::flush, [&] { base().synchronizeDirectory(path); });
  }

 private:
  class Handle : public ForwardingFileHandle {
   public:
    Handle(FaultyFileManager& files, std::unique_ptr<FileHandle> handle)
        : ForwardingFileHandle(std::move(handle)), files_(files) {}

    Bytes read(size_t count) override {
      return files_.perform(FileOperation::read, [&] { return base().read(count); });
    }
    size_t readInto(std::span<uint8_t> target) override {
      return files_.perform(FileOperation::read, [&] { return base().readInto(target); });
    }
    void write(ByteView bytes) override {
      files_.perform(
          FileOperation::write, [&] { base().write(bytes); }, [&] { base().write(bytes.first(bytes.size() / 2)); });
    }
    uint64_t copyRange(FileHandle& target, uint64_t count) override {
      return files_.perform(FileOperation::read, [&] {
        return files_.perform(FileOperation::write, [&] { return ForwardingFileHandle::copyRange(target, count); });
      });
    }
    void truncate(uint64_t size) override {
      files_.perform(FileOperation::truncate, [&] { base().truncate(size); });
    }
    void synchronize() override {
      files_.perform(FileOperation::flush, [&] { base().synchronize(); });
    }
    void close() override {
      files_.perform(FileOperation::close, [&] { base().close(); });
    }

   private:
    FaultyFileManager& files_;
  };

  /// How a call that counts ends: nothing for one that works.
  std::optional<Fault> faultOfNextCall(FileOperation operation) {
    std::lock_guard guard(mutex_);
    if (fault_ && !fault_->among.empty() && !fault_->among.contains(operation)) return std::nullopt;
    ++calls_;
    if (!fault_ || calls_ < fault_->call || (calls_ > fault_->call && !fault_->lasting)) return std::nullopt;
    Fault fault = *fault_;
    if (calls_ > fault.call) fault.effect = Fault::Effect::none;
    return fault;
  }

  template <typename Work, typename HalfWork = void (*)()>
  auto perform(
      FileOperation operation, Work work, HalfWork halfWork = [] {}) -> decltype(work()) {
    const auto fault = faultOfNextCall(operation);
    if (!fault) return work();
    if (fault->effect == Fault::Effect::half) halfWork();
    if (fault->effect == Fault::Effect::whole) work();
    if (fault->strike) fault->strike();
    if (fault->errnum == 0) return work();
    throw PosixError(fault->errnum, "fault of a test");
  }

  mutable std::mutex mutex_;
  std::optional<Fault> fault_;
  uint64_t calls_ = 0;
};

}  // namespace tarn::test

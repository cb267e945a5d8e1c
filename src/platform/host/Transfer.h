#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/NSURLSession.h"
#include "platform/host/TransferStore.h"

namespace tarn {

class Transfer;

/// Does the work of a transfer. Thread-safe.
class TransferOwner {
 public:
  virtual ~TransferOwner() = default;
  /// The transfer has gone from suspended to running.
  virtual void start(std::shared_ptr<Transfer> transfer) = 0;
  /// The transfer has gone from running to suspended.
  virtual void suspend(std::shared_ptr<Transfer> transfer) = 0;
  /// The transfer has gone to canceling.
  virtual void cancel(std::shared_ptr<Transfer> transfer) = 0;
  /// Stores another description. Throws PosixError.
  virtual void describe(int64_t taskIdentifier, const std::string& text) = 0;
};

/// A download task of the host's session: the facts that its users see, and the one place where its end is decided. It
/// leaves `running` for its end once, and who moved it tells the delegate. Thread-safe; the mutex is a leaf.
class Transfer final : public NSURLSessionDownloadTask, public std::enable_shared_from_this<Transfer> {
 public:
  enum class Phase {
    suspended,
    running,
    whole,  ///< all bytes are there: too late to suspend it
    handedOver,
    canceling,
    completed
  };

  /// Byte counts since the start of the file; `expected` is -1 while it is not known.
  struct Progress {
    int64_t written = 0;  ///< since the last report
    int64_t total = 0;
    int64_t expected = -1;
  };

  /// `received` is the size of the partial file in bytes. The owner is held weakly; without one, resume and cancel do
  /// nothing.
  Transfer(const TransferRecord& record, Phase phase, uint64_t received, std::weak_ptr<TransferOwner> owner);

  int64_t taskIdentifier() const override { return taskIdentifier_; }
  std::string originalRequestURL() const override { return url_; }
  std::string taskDescription() const override;
  NSURLSessionTaskState state() const override;
  double fractionCompleted() const override;
  TransferState transferState() const override;
  void setTaskDescription(const std::string& text) override;
  std::optional<std::string> suggestedFilename() const override;
  void resume() override;
  void suspend() override;
  void cancel() override;

  Phase phase() const;

  /// Moves to the next phase; false, and no change, when the transfer is not in `from`.
  bool advance(Phase from, Phase to);

  void setProgress(uint64_t received, std::optional<uint64_t> expected);

  void setSuggestedFilename(const std::string& name);

  /// The next try, and why the last one has failed.
  struct NextTry {
    int number = 0;  ///< from 1
    int most = 0;
    std::chrono::steady_clock::time_point time;
    std::string why;
  };
  /// Nothing while a try is under way.
  void setNextTry(std::optional<NextTry> next);

  /// True if a report has to be put on its way; false while one that has been is not yet taken.
  bool wantsReport();

  /// The counts to report now; the report on its way counts as taken.
  Progress takeReport();

 private:
  const int64_t taskIdentifier_;
  const std::string url_;
  const std::weak_ptr<TransferOwner> owner_;

  mutable std::mutex mutex_;
  std::string taskDescription_;
  std::string suggestedFilename_;
  Phase phase_;
  int64_t received_;
  int64_t expected_;
  int64_t reported_;
  std::optional<NextTry> nextTry_;
  bool reportOnItsWay_ = false;
};

}  // namespace tarn

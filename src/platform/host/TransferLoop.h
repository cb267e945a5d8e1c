#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/host/CurlURLSession.h"
#include "platform/host/DelegateQueue.h"
#include "platform/host/Transfer.h"
#include "platform/host/TransferAttempt.h"
#include "platform/host/TransferStore.h"

namespace tarn {

/// Runs the transfers of one session on one thread: makes attempts, gives them to libcurl's multi interface, and
/// decides at the end of each whether another follows. Never calls the delegate itself and never waits for it.
class TransferLoop : public TransferOwner {
 public:
  TransferLoop(FileManager& files, std::shared_ptr<TransferStore> store, std::shared_ptr<DelegateQueue> delegateQueue,
               CurlURLSessionOptions options);

  ~TransferLoop() override;

  /// Ends the thread and the attempts that run; transfers stay as they are in the store. A second call does nothing.
  void stop();

  void start(std::shared_ptr<Transfer> transfer) override;
  void suspend(std::shared_ptr<Transfer> transfer) override;

  /// The record is gone when this returns, all else soon after.
  void cancel(std::shared_ptr<Transfer> transfer) override;
  void describe(int64_t taskIdentifier, const std::string& text) override;

 private:
  using Clock = TransferAttempt::Clock;

  struct Command {
    enum class Kind { start, suspend, cancel, stop } kind;
    std::shared_ptr<Transfer> transfer;
  };

  /// A transfer between its start and its end: an attempt runs, or the next one waits for its time.
  struct Job {
    std::shared_ptr<Transfer> transfer;
    TransferRecord record;
    std::unique_ptr<TransferAttempt> attempt;
    Clock::time_point nextTry;
    Clock::time_point lastReport;
    int tries = 0;       ///< in a row without progress
    int startOvers = 0;  ///< how often bytes were thrown away
  };

  struct MultiDeleter {
    void operator()(void* multi) const;
  };

  void post(Command command);
  void run();
  bool obeyCommands();
  void take(const std::shared_ptr<Transfer>& transfer);
  void putAside(const std::shared_ptr<Transfer>& transfer);
  void drop(const std::shared_ptr<Transfer>& transfer);
  void endJob(int64_t taskIdentifier);
  void startDueJobs();
  void letHeldGoOn();
  void startAttempt(Job& job);
  void detach(Job& job);
  void endFinishedAttempts();
  void endStalledAttempts();
  void endAttempt(Job& job, int code);
  void retryOrFail(Job& job, const TransferAttempt::Outcome& outcome);
  void fail(Job& job, const Error& error);
  void finish(Job& job);
  void report(Job& job, uint64_t received, std::optional<uint64_t> expected);
  void closeIdleConnections();
  int millisecondsToNextDeadline() const;

  FileManager& files_;
  const std::shared_ptr<TransferStore> store_;
  const std::shared_ptr<DelegateQueue> delegateQueue_;
  const CurlURLSessionOptions options_;

  std::mutex mutex_;
  std::vector<Command> commands_;
  std::unique_ptr<void, MultiDeleter> multi_;  ///< CURLM*; the thread alone changes it, and uses it without the mutex

  // Of the thread alone.
  std::map<int64_t, Job> jobs_;  ///< by task identifier
  std::optional<Clock::time_point> idleConnectionsEnd_;
  std::thread thread_;
};

}  // namespace tarn

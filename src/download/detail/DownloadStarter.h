#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "download/detail/EngineState.h"

namespace tarn {

/// Starts downloads under the limit and owns the session of their transfers. Thread-safe.
///
/// Two locks, that of the ids and that of the session, come before all others of the engine, and are never held
/// together. Transfers are started under neither.
class DownloadStarter {
 public:
  using DelegatePointer = std::shared_ptr<DownloadManagerDelegate>;

  explicit DownloadStarter(EngineState& engine)
      : engine_(engine), sessionIdentifier_(engine.platform.application.bundleIdentifier() + ".downloads") {}

  /// Sets who receives the session's events; once, before anything is started.
  void setSessionDelegate(std::weak_ptr<NSURLSessionDownloadDelegate> delegate) {
    sessionDelegate_ = std::move(delegate);
  }

  /// Brings back the tasks of the last process and goes on with them; `delegate` is told of those that are under way.
  /// Throws PosixError when the stored list cannot be read.
  void load(const std::weak_ptr<DownloadManagerDelegate>& delegate);

  /// Starts a download, or puts it into the line. Null if the URL does not parse. It gets `wantedId`, if that is free
  /// and above 0.
  DownloadTaskPointer start(const DownloadRequest& request, const DelegatePointer& delegate,
                            std::optional<int64_t> wantedId);

  /// A download that needs no transfer and no slot, since its file is there: in the registry, and not stored yet.
  DownloadTaskPointer takeWithoutTransfer(const DownloadRequest& request, const DelegatePointer& delegate);

  /// Starts a download that is in no line, or puts it at the end of the line if no slot is free.
  void startOrQueue(const PendingDownload& download);

  /// Starts downloads of the line while slots are free.
  void startNext();

  /// Gives a slot back, and starts what may start now.
  void releaseSlot(int64_t id);

  /// The transfers that have not ended, with their notes; those of an earlier process once it is known that there are.
  struct NotedTransfer {
    DownloadTask::Transfer transfer;
    NotedDownload note;
  };
  std::vector<NotedTransfer> transfers();

  /// Cancels the transfers of a download, those of an earlier process included.
  void cancelTransfer(int64_t id);

  /// Makes the transfer session, so that transfers of an earlier process report.
  void openSession() { session(); }

  /// No download of the line starts any more.
  void stop() { isStopped_ = true; }

 private:
  std::map<int64_t, DownloadRequest> storedRequests();
  void takeUpStoredTransfers();
  void takeUp(const NotedTransfer& stored);
  int64_t makeId(std::optional<int64_t> wanted);
  bool isIdTaken(int64_t id);
  NSURLSession& session();
  void makeSession();
  DownloadTask::Transfer makeTransfer(const DownloadTask& task);
  void storeAhead(const DownloadTaskPointer& task);
  static void letGoOn(const DownloadTask& task, NSURLSessionDownloadTask& transfer);
  bool startTransfer(const PendingDownload& download);
  void startTaken(const DownloadQueue::Started& started);

  EngineState& engine_;
  const std::string sessionIdentifier_;
  std::weak_ptr<NSURLSessionDownloadDelegate> sessionDelegate_;
  std::atomic<bool> isStopped_ = false;
  std::mutex idMutex_;
  std::set<int64_t> issuedIds_;  ///< of this second and later ones
  std::mutex sessionMutex_;
  std::unique_ptr<NSURLSession> session_;  ///< made at the first transfer
};

}  // namespace tarn

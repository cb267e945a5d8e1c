#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "download/DocumentsSweep.h"
#include "download/DownloadTask.h"
#include "download/detail/BackgroundTime.h"
#include "download/detail/DownloadQueue.h"
#include "download/detail/DownloadRegistry.h"
#include "download/detail/TaskStore.h"
#include "pipeline/NamesInTheMaking.h"
#include "pipeline/ProcessingDriver.h"
#include "pipeline/ProcessingGate.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/Platform.h"

namespace tarn {

/// The engine: starts downloads under the limit, hears the transfers, hands finished files to the pipeline, one at a
/// time, and keeps the stores. Thread-safe. Made with create(); it lives until its last run, event and timer has ended.
///
/// Locks: the queue's and the gate's are never held together; both may be held while the registry's, a task's or a
/// store's is taken, which call nobody. Those of the ids and of the session come before all of them.
class DownloadManager : public NSURLSessionDownloadDelegate,
                        private RunListener,
                        public std::enable_shared_from_this<DownloadManager> {
 public:
  using DelegatePointer = std::shared_ptr<DownloadManagerDelegate>;

  /// Makes the engine with the tasks of the last process; those that were waiting go back into the line. The delegate
  /// hears of those that are under way, and `outcomes` how each download ends, ahead of everybody else. The platform
  /// and the steps must outlive it. Throws PosixError when the stored tasks cannot be read.
  static std::shared_ptr<DownloadManager> create(const Platform& platform, const ProcessingSteps& steps,
                                                 const std::weak_ptr<DownloadManagerDelegate>& delegate = {},
                                                 OutcomeSink outcomes = {});
  ~DownloadManager() override;

  /// Starts a download, or puts it into the line. Null when the URL does not parse or new downloads are blocked. A
  /// transfer that cannot even be started fails the task, and the delegate hears of it. The download gets `wantedId`,
  /// if that is free and above 0.
  DownloadTaskPointer startDownloadFileBy(const std::string& url, const std::optional<std::string>& album,
                                          const std::optional<std::string>& filename, bool skipVideoFix,
                                          bool skipAudioFix, const DelegatePointer& delegate,
                                          std::optional<int64_t> wantedId = std::nullopt);

  /// Stops one download wherever it is, and removes it. Nobody is told. An unknown id is ignored.
  void cancelDownloadFileBy(int64_t id);
  /// Stops and removes everything, and blocks new downloads for half a second.
  void cancelAll();
  /// Removes everything and lifts the block. A run that is active is asked to stop, and no other waits for it longer
  /// than until its next check.
  void clearAllStates();

  /// Removes a task that is done with, later: its stored entry, its delegate, and the file at its location.
  void removeDownload(int64_t key);
  void removeDelegate(int64_t key);

  std::vector<DownloadTaskPointer> getDownloads() const;
  /// Tasks that wait, download or are processed.
  std::vector<DownloadTaskPointer> getActiveDownloads() const;

  int64_t getMaxConcurrentDownloads();
  /// Clamps to 1 to 10, and starts what may start now. A limit that cannot be stored stays as it was.
  void setMaxConcurrentDownloads(int64_t limit);
  size_t getQueuedDownloadCount() const;

  /// Removes finished tasks and checkpoints that are older than a day, and files that nothing refers to; later.
  void performPeriodicCleanup();

  /// Resumes the oldest stored checkpoint, unless a run is active.
  void checkAndResumePendingProcessing();

  /// Makes the transfer session, so that transfers of an earlier process report.
  void handleEventsForBackgroundURLSession();

  /// True while a run is active.
  bool isProcessing() const { return gate_.activeRun().has_value(); }

  void handleAppDidEnterBackground();
  void endBackgroundTask();

  /// No run and no queued download starts any more; what waits stays in the stores.
  void stopStarting();

  void urlSessionDidWriteData(const TaskPointer& task, int64_t bytesWritten, int64_t totalBytesWritten,
                              int64_t totalBytesExpectedToWrite) override;
  void urlSessionDidFinishDownloading(const TaskPointer& task, const Path& location) override;
  void urlSessionDidComplete(const TaskPointer& task, const std::optional<Error>& error) override;

 private:
  DownloadManager(const Platform& platform, const ProcessingSteps& steps, OutcomeSink outcomes);

  // Starting and stopping (DownloadManager.cpp)
  void loadPersistedDownloads(const std::weak_ptr<DownloadManagerDelegate>& delegate);
  std::set<int64_t> idsOfStoredTransfers();
  void takeUpStoredTransfers();
  int64_t makeId(std::optional<int64_t> wanted);
  bool isIdTaken(int64_t id);
  NSURLSession& session();
  void makeSession();
  DownloadTask::Transfer makeTransfer(const PendingDownload& download);
  void storeAhead(const PendingDownload& download);
  bool startTransfer(const PendingDownload& download);
  void startNextQueuedDownloads();
  void executeDownload(const DownloadQueue::Started& started);
  void releaseSlot(int64_t id);
  void cancelTransfer(int64_t id);
  void deleteFiles(const ProcessingGate::TakenAway& taken);
  void postWipe();
  void cleanUpPeriodically();
  void giveUp(const std::vector<int64_t>& ids, const std::string& words);
  void post(DispatchQueue& queue, std::function<void(DownloadManager&)> work);
  void postToMain(std::function<void(DownloadManager&)> work) { post(platform_.dispatch.mainQueue(), std::move(work)); }

  // Transfer events (TransferEvents.cpp)
  DownloadRegistry::Match findTask(const TaskPointer& transfer);
  bool wasHandedOver(const DownloadTaskPointer& task);
  std::optional<ProcessingState> takeFile(const DownloadTaskPointer& task, const Path& location);
  void failHandOver(const DownloadTaskPointer& task, const std::exception_ptr& failure);
  NamesInTheMaking::Hold holdDestination(const DownloadTaskPointer& task);
  void moveIntoPlace(const Path& location, const Path& destination);

  // The processing line (ProcessingLine.cpp)
  void queueOrStartProcessing(const ProcessingState& state, const DownloadTaskPointer& download);
  bool resumeProcessing(int64_t id);
  void startRun(const ProcessingGate::Start& start);
  void startNextRun(const ProcessingGate::Next& next, const DownloadTaskPointer& download);
  void startBackgroundTime(int64_t id);
  void showStage(const DownloadTaskPointer& download, const std::string& stage);
  void handleBackgroundExpiration();

  // RunListener
  bool saveRecord(const CancellationToken& token, const ProcessingState& record) override;
  void progressUpdated(int64_t id, double progress, const std::string& stage) override;
  bool ended(const ProcessingRun& run) override;
  void showOutcome(const ProcessingRun& run, const DownloadTaskPointer& download);

  /// The download failed on its way to a run.
  void fail(const DownloadTaskPointer& download, RunOutcome::Where where, const std::exception_ptr& failure);

  // Telling the page, later (ProcessingLine.cpp)
  void notifyFinished(const DownloadTaskPointer& download, const Path& location);
  void notifyFailed(const DownloadTaskPointer& download);

  Platform platform_;
  const OutcomeSink outcomes_;
  DownloadRegistry registry_;
  TaskStore taskStore_;
  DownloadQueue queue_;
  ProcessingStateManager store_;
  ProcessingGate gate_;
  NamesInTheMaking names_;
  DocumentsSweep sweep_;
  ProcessingDriver driver_;
  std::shared_ptr<BackgroundTime> backgroundTime_;
  std::shared_ptr<DispatchQueue> downloadsQueue_;
  std::shared_ptr<DispatchQueue> processingWorker_;  ///< runs only, so that two can never overlap
  std::atomic<bool> isBlockingNewDownloads_ = false;
  std::atomic<bool> isStopped_ = false;
  std::mutex idMutex_;
  std::set<int64_t> issuedIds_;  ///< of this second and later ones
  std::mutex sessionMutex_;
  std::unique_ptr<NSURLSession> session_;  ///< made at the first transfer
};

}  // namespace tarn

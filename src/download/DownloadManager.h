#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "download/DownloadListener.h"
#include "download/DownloadRequest.h"
#include "download/DownloadTask.h"
#include "pipeline/ProcessingStep.h"
#include "platform/Platform.h"

namespace tarn {

/// The engine: starts downloads under the limit, hears the transfers, hands finished files to the pipeline, one at a
/// time, and keeps the stores. Thread-safe; may be called on any queue, under no lock. Made with create(); it lives
/// until its last run, event and timer has ended.
class DownloadManager {
 public:
  using DelegatePointer = std::shared_ptr<DownloadManagerDelegate>;

  /// Makes the engine with the tasks of the last process; those that were waiting go back into the line. The delegate
  /// is told of those that are under way. The platform, the steps and the listener, if there is one, must outlive it.
  /// Throws PosixError when the stored tasks cannot be read.
  static std::shared_ptr<DownloadManager> create(const Platform& platform, const ProcessingSteps& steps,
                                                 const std::weak_ptr<DownloadManagerDelegate>& delegate = {},
                                                 DownloadListener* listener = nullptr);
  ~DownloadManager();

  /// Starts a download, or puts it into the line. Null if the URL does not parse or new downloads are blocked. A
  /// transfer that cannot even be started fails the task, and the delegate is told of it. The download gets `wantedId`,
  /// if that is free and above 0.
  DownloadTaskPointer startDownloadFileBy(const DownloadRequest& request, const DelegatePointer& delegate,
                                          std::optional<int64_t> wantedId = std::nullopt);

  /// Has a file of this machine repaired and saved, as if a transfer had brought it; it is moved away. May look into
  /// the whole file. The delegate is told of all that comes, of a hand-over that fails too. Null if new downloads are
  /// blocked.
  DownloadTaskPointer takeIn(const Path& file, const DownloadRequest& request, const DelegatePointer& delegate);

  /// Stops one download wherever it is, and removes it. Nobody is told. An unknown id is ignored.
  void cancelDownloadFileBy(int64_t id);
  /// Stops and removes everything, and blocks new downloads for half a second.
  void cancelAll();
  /// Removes everything and lifts the block. A run that is active is asked to stop, and no other waits for it longer
  /// than until its next check.
  void clearAllStates();

  /// How far the transfers of the downloads are that wait or download, by their ids.
  std::map<int64_t, TransferState> getTransferStates();
  /// Stops the transfer of a download and keeps what it has fetched, over a restart too. The download leaves its place,
  /// in the line or among those that run, to others; its status stays. False if it has no transfer that can be paused.
  bool pauseDownloadFileBy(int64_t id);
  /// Lets a paused download go on: at once, or from the end of the line. False if it is not paused.
  bool resumeDownloadFileBy(int64_t id);

  /// Removes a task that is done with, later: its stored form, its delegate, and the file at its location.
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
  bool isProcessing() const;

  void handleAppDidEnterBackground();
  void endBackgroundTask();

  /// No run and no queued download starts any more; what waits stays in the stores.
  void stopStarting();

 private:
  struct Parts;

  DownloadManager(const Platform& platform, const ProcessingSteps& steps, DownloadListener* listener);

  const std::unique_ptr<Parts> parts_;
};

}  // namespace tarn

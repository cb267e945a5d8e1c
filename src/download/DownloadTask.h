#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "download/DownloadRequest.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "platform/NSURLSession.h"

namespace tarn {

enum class DownloadStatus { unknown, queued, downloading, processing, paused, completed, failed, cancelled };

/// The stored text of a status; and the status of such a text, `unknown` for any other.
std::string_view rawValue(DownloadStatus status);
DownloadStatus downloadStatus(std::string_view rawValue);

/// The text that a page sees.
std::string_view pageText(DownloadStatus status);

/// True for a task that waits, downloads or is processed.
bool isActive(DownloadStatus status);

/// Why a task has its status. Only `error` carries an error.
struct DownloadReason {
  enum class Case {
    error,
    none,
    networkFailure,
    serverUnavailable,
    insufficientSpace,
    cancelled,
    waitingToRetry,
    queuedForWifi,
    fileError,
    cannotResume,
    fileAlreadyExists,
  };

  Case kind = Case::none;
  std::exception_ptr failure;  ///< of `error`; its words stay in the log

  DownloadReason() = default;
  DownloadReason(Case reason) : kind(reason) {}
  static DownloadReason error(std::exception_ptr failure);

  /// The text that a page sees.
  std::string_view description() const;
};

/// One video that a page asked for, from the command to the outcome. Shared by the registry, the waiting line and
/// posted work. Every field that changes is read and written under the task's own mutex, under which nobody is called.
/// Thread-safe.
class DownloadTask {
 public:
  using CompletionHandler = std::function<void(const std::shared_ptr<DownloadTask>&, const std::optional<Path>&)>;
  using Transfer = std::shared_ptr<NSURLSessionDownloadTask>;

  /// `files` must outlive the task: cancel() and cleanup() use it to delete.
  DownloadTask(FileManager& files, int64_t id, DownloadRequest request);

  const int64_t id;  ///< creation time in seconds since 1970; key in every map, store and payload
  const DownloadRequest request;

  /// The fields that change, as one consistent copy.
  struct Snapshot {
    DownloadStatus status = DownloadStatus::unknown;
    DownloadReason reason;
    std::optional<std::string> serversName;  ///< in place of the request's filename
    std::optional<Path> location;            ///< file that cancel() and cleanup() delete
    std::optional<std::string> assetId;      ///< photo library identifier of the saved video
    double progress = 0;                     ///< fraction of the transfer done
    double processingProgress = 0;           ///< fraction of the processing done
    std::string processingStage;             ///< text for the page
    bool isPaused = false;                   ///< by its user; the status stays
    bool notificationSent = false;           ///< the page's completion event has been arranged
    Transfer downloadTask;
    std::optional<Bytes> resumeData;
    int64_t totalBytes = 0;  ///< expected size as the transfer tells it; -1 while it is not known
    int64_t bytesDownloaded = 0;
    std::function<void(double)> onProgress;                             ///< free for an embedder; never called
    std::function<void(bool, const std::exception_ptr&)> onCompletion;  ///< free for an embedder; never called
    CompletionHandler onDownloadComplete;  ///< called once at the end, on the main queue, in place of the delegate

    /// True once cancel() or cleanup() has run.
    bool isEnded() const { return reason.kind == DownloadReason::Case::cancelled; }
  };

  Snapshot snapshot() const;
  DownloadStatus status() const;
  bool isEnded() const;
  bool isPaused() const;
  /// The request's, or the one that the server has given in its place.
  std::optional<std::string> filename() const;

  /// Changes fields under the mutex; the change must call nobody.
  template <typename Change>
  void update(Change&& change) {
    std::lock_guard guard(mutex_);
    change(fields_);
  }

  /// True for the first caller alone: that one tells the page of the end.
  bool claimNotification();

  /// Sets the status to `failed` with this error, unless the task has ended.
  void fail(std::exception_ptr failure);

  /// Stops a running transfer, drops the completion handler, deletes the file at `location` and sets the status to
  /// `failed`.
  void cancel();

  /// The same, but the status becomes `cancelled`. A second call finds nothing to do.
  void cleanup();

 private:
  void end(DownloadStatus status);

  FileManager& files_;
  mutable std::mutex mutex_;
  Snapshot fields_;
};

using DownloadTaskPointer = std::shared_ptr<DownloadTask>;

/// Is told of a task's progress and end. All calls come on the main queue.
class DownloadManagerDelegate {
 public:
  virtual ~DownloadManagerDelegate() = default;
  virtual void downloadDidFinish(const DownloadTaskPointer& download, const Path& location) = 0;
  virtual void downloadDidFailed(const DownloadTaskPointer& download) = 0;
  virtual void processingProgressUpdated(int64_t id, double progress, const std::string& stage) = 0;
};

}  // namespace tarn

#pragma once

#include <tarn/transfer.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

enum class NSURLSessionTaskState { running = 0, suspended = 1, canceling = 2, completed = 3 };

/// One download. Thread-safe. A task is made suspended.
class NSURLSessionDownloadTask {
 public:
  virtual ~NSURLSessionDownloadTask() = default;

  /// Unique within the session object, and the same for the same transfer in the next process.
  virtual int64_t taskIdentifier() const = 0;
  /// The absolute text of the URL that the task was made with, whatever redirects followed.
  virtual std::string originalRequestURL() const = 0;
  virtual NSURLSessionTaskState state() const = 0;
  /// Text of the owner's choice, kept with the transfer over a restart of the process.
  virtual std::string taskDescription() const = 0;
  /// Fraction of the transfer done, 0 to 1; 0 while the size is not known.
  virtual double fractionCompleted() const = 0;
  /// How far it is and, if the last try has failed, when the next one comes. It tells nothing of a pause.
  virtual TransferState transferState() const = 0;
  /// Replaces the owner's text, on stable storage when this returns. Throws PosixError.
  virtual void setTaskDescription(const std::string& text) = 0;
  /// The name that the server gives the file, once it has answered; a stranger's text, on one line and without a path.
  virtual std::optional<std::string> suggestedFilename() const = 0;
  /// Starts the transfer, or lets it go on; does nothing while it runs and after its end.
  virtual void resume() = 0;
  /// Stops the transfer and keeps what it has fetched; the next process finds it suspended. Does nothing once the whole
  /// file is there.
  virtual void suspend() = 0;
  /// Stops the transfer and deletes what it has fetched. The delegate hears didCompleteWithError with
  /// URLError::cancelled, once. Does nothing after the end.
  virtual void cancel() = 0;
};

/// Hears a session's events, on the session's own serial queue, for each task in this order: any number of
/// didWriteData, at most one didFinishDownloading, one didComplete.
class NSURLSessionDownloadDelegate {
 public:
  using TaskPointer = std::shared_ptr<NSURLSessionDownloadTask>;

  virtual ~NSURLSessionDownloadDelegate() = default;

  /// Byte counts since the start of the file. `expected` is -1 while the server has not told the size.
  virtual void urlSessionDidWriteData(const TaskPointer& task, int64_t bytesWritten, int64_t totalBytesWritten,
                                      int64_t totalBytesExpectedToWrite) = 0;

  /// The whole file is at `location`, which is gone when this returns unless it was moved away. When the process
  /// dies before this returns, the next one hears it again, with the whole file at `location`.
  virtual void urlSessionDidFinishDownloading(const TaskPointer& task, const Path& location) = 0;

  /// The last event. Without an error, didFinishDownloading has been heard.
  virtual void urlSessionDidComplete(const TaskPointer& task, const std::optional<Error>& error) = 0;
};

/// A background session: transfers go on over a restart of the process. Destroying it stops the transfers in this
/// process, keeps their records and partial files, and returns when no delegate call runs any more.
class NSURLSession {
 public:
  virtual ~NSURLSession() = default;

  /// Makes a task, with its record on stable storage; http and https only. The options are kept with the task, and what
  /// they give for the URL's origin goes nowhere else. Throws URLError for a URL that cannot be fetched or options that
  /// cannot be taken, PosixError when the record cannot be written.
  virtual std::shared_ptr<NSURLSessionDownloadTask> downloadTask(const std::string& url,
                                                                 const std::string& taskDescription,
                                                                 const TransferOptions& options = {}) = 0;

  /// The tasks of this session that have not had their last event, those of an earlier process included.
  virtual std::vector<std::shared_ptr<NSURLSessionDownloadTask>> allTasks() = 0;
};

/// Makes sessions and knows of transfers that an earlier process has left.
class NSURLSessionService {
 public:
  virtual ~NSURLSessionService() = default;

  /// Makes the session of this identifier and takes up the transfers of the last process: the events of those that were
  /// resumed begin to arrive at once, the others are suspended as they were. One session at a time for each identifier.
  /// The delegate is held weakly.
  virtual std::unique_ptr<NSURLSession> makeBackgroundSession(const std::string& identifier,
                                                              std::weak_ptr<NSURLSessionDownloadDelegate> delegate) = 0;

  /// Descriptions (taskDescription) of the transfers that wait in the store, whether or not a session has them.
  virtual std::vector<std::string> storedTaskDescriptions() = 0;
};

}  // namespace tarn

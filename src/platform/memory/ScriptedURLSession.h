#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/FileManager.h"
#include "platform/NSURLSession.h"

namespace tarn {

/// A transfer that does nothing by itself: its events are fired through the service below.
class ScriptedDownloadTask : public NSURLSessionDownloadTask {
 public:
  ScriptedDownloadTask(int64_t taskIdentifier, std::string url, std::string taskDescription, TransferOptions options,
                       NSURLSessionTaskState state);

  int64_t taskIdentifier() const override { return taskIdentifier_; }
  std::string originalRequestURL() const override { return url_; }
  std::string taskDescription() const override;
  const TransferOptions& options() const { return options_; }
  NSURLSessionTaskState state() const override;
  double fractionCompleted() const override;
  TransferState transferState() const override;
  void setTaskDescription(const std::string& text) override;
  std::optional<std::string> suggestedFilename() const override;
  void resume() override;
  void suspend() override;
  void cancel() override;

 private:
  friend class ScriptedURLSessionService;

  /// Whether a next process would hear of it.
  bool isStored() const;

  const int64_t taskIdentifier_;
  const std::string url_;
  const TransferOptions options_;
  mutable std::mutex mutex_;
  std::string taskDescription_;
  std::optional<std::string> suggestedFilename_;
  NSURLSessionTaskState state_;
  int64_t received_ = 0;   ///< bytes
  int64_t expected_ = -1;  ///< bytes; -1 while not known
  bool isHandedOver_ = false;
};

/// Transfers in the hands of a test. Events are fired one by one, for a task by the URL that it was made with (of equal
/// URLs the last made), and have been heard by the delegate when the operation returns; they run on the delegate queue,
/// or on the calling thread when there is none. Destroying the session and making the next one is a restart of the
/// process: what has not ended is there again, under the same identifiers, URLs and descriptions; what was started
/// runs, and what was not is suspended. Thread-safe.
class ScriptedURLSessionService : public NSURLSessionService {
 public:
  using TaskPointer = std::shared_ptr<ScriptedDownloadTask>;

  /// Finished files are put into `directory` for the hand-over. Fires must not come from the delegate queue itself.
  ScriptedURLSessionService(FileManager& files, Path directory, std::shared_ptr<DispatchQueue> delegateQueue = nullptr);

  std::unique_ptr<NSURLSession> makeBackgroundSession(const std::string& identifier,
                                                      std::weak_ptr<NSURLSessionDownloadDelegate> delegate) override;
  std::vector<std::string> storedTaskDescriptions() override;

  /// All transfers that have not ended, in the order of their making.
  std::vector<TaskPointer> tasks() const;

  /// The transfer of a URL; throws std::out_of_range when there is none, so that a test fails with its name.
  TaskPointer task(const std::string& url) const;

  /// The server gives the file a name.
  void suggest(const std::string& url, const std::string& filename);

  void writeData(const std::string& url, int64_t total, int64_t expected);

  /// Hands over a file with these bytes, and deletes it if the delegate leaves it where it stands.
  void finish(const std::string& url, ByteView bytes);

  /// Hands over a file that is not there.
  void finishWithoutFile(const std::string& url);

  /// The last event of a task. A task that has been cancelled is told of that in place of `error`.
  void complete(const std::string& url, const std::optional<Error>& error = std::nullopt);

  /// The last event of every task that has been cancelled since the last call; the real service sends it late, too.
  void deliverCancellations();

 private:
  class Session;

  TaskPointer make(const std::string& url, const std::string& taskDescription, const TransferOptions& options);
  void handOver(const TaskPointer& task, const Path& location);
  void end(const TaskPointer& task, const std::optional<Error>& error);
  void call(const std::function<void(NSURLSessionDownloadDelegate&)>& event);

  FileManager& files_;
  const Path directory_;
  const std::shared_ptr<DispatchQueue> delegateQueue_;
  mutable std::mutex mutex_;
  int64_t lastIdentifier_ = 0;
  std::vector<TaskPointer> tasks_;
  std::weak_ptr<NSURLSessionDownloadDelegate> delegate_;
};

}  // namespace tarn

#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "download/DownloadListener.h"
#include "download/detail/DownloadRegistry.h"
#include "download/detail/EnginePosts.h"

namespace tarn {

/// Tells how downloads go: at once the task and the listener, later (on the main queue) the delegate or
/// the task's completion handler. May be called on any thread, under no lock.
class DownloadNews {
 public:
  /// All must outlive it; there may be no listener.
  DownloadNews(const DownloadRegistry& registry, const EnginePosts& posts, DownloadListener* listener)
      : registry_(registry), posts_(posts), listener_(listener) {}

  /// Tells the listener of a download that was taken. Comes before all else that is done about it.
  void began(const DownloadTask& download);

  /// The progress of a download's run, with the text that the page shows for it.
  void showProgress(int64_t id, double progress, const std::string& stage);

  /// Tells the listener how a download ended. Comes before all else that tells of the same end.
  void ended(const RunOutcome& outcome);

  /// Tells the listener of a download that failed outside of a run, and marks its task as failed.
  void fail(const DownloadTaskPointer& download, RunOutcome::Where where, const std::exception_ptr& failure);

  /// Tells of the end of a download, unless somebody has done so: of one whose file was taken as far as the last step,
  /// with success or not; of one that failed before.
  void tellFinished(const DownloadTaskPointer& download, const Path& location);
  void tellFailed(const DownloadTaskPointer& download);

  /// Tells the delegate alone that a file could not enter the pipeline. The last event of its transfer, which may never
  /// come, tells it as well.
  void tellFailedHandOver(const DownloadTaskPointer& download);

 private:
  const DownloadRegistry& registry_;
  const EnginePosts& posts_;
  DownloadListener* const listener_;
};

}  // namespace tarn

#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "download/detail/DownloadRegistry.h"
#include "download/detail/EnginePosts.h"
#include "pipeline/RunOutcome.h"

namespace tarn {

/// Tells how downloads go: at once the task and whoever keeps the outcomes, later (on the main queue) the delegate or
/// the task's completion handler. May be called on any thread, under no lock.
class DownloadNews {
 public:
  /// Both references must outlive it.
  DownloadNews(const DownloadRegistry& registry, const EnginePosts& posts, OutcomeSink outcomes);

  /// The progress of a download's run, with the text that the page shows for it.
  void showProgress(int64_t id, double progress, const std::string& stage);

  /// Hands the outcome to whoever keeps it. Comes ahead of all else that tells of the same end.
  void keep(const RunOutcome& outcome) { outcomes_(outcome); }

  /// Keeps the outcome of a download that failed outside of a run, and marks its task as failed.
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
  const OutcomeSink outcomes_;
};

}  // namespace tarn

#include "download/detail/DownloadNews.h"

namespace tarn {

void DownloadNews::began(const DownloadTask& download) {
  if (listener_) listener_->began(download.id, download.request);
}

void DownloadNews::ended(const RunOutcome& outcome) {
  if (listener_) listener_->ended(outcome);
}

void DownloadNews::showProgress(int64_t id, double progress, const std::string& stage) {
  const DownloadTaskPointer download = registry_.find(id);
  if (!download) return;
  download->update([&](DownloadTask::Snapshot& fields) {
    fields.processingProgress = progress;
    fields.processingStage = stage;
  });
  posts_.postToMain([this, id, progress, stage] {
    if (auto delegate = registry_.delegate(id)) delegate->processingProgressUpdated(id, progress, stage);
  });
}

void DownloadNews::fail(const DownloadTaskPointer& download, RunOutcome::Where where,
                        const std::exception_ptr& failure) {
  ended(RunOutcome::failed(download->id, where, failure));
  download->fail(failure);
}

void DownloadNews::tellFinished(const DownloadTaskPointer& download, const Path& location) {
  posts_.postToMain([this, download, location] {
    if (!download->claimNotification()) return;
    const auto fields = download->snapshot();
    const bool isSaved = fields.status == DownloadStatus::completed;
    if (fields.onDownloadComplete) {
      fields.onDownloadComplete(download, isSaved ? std::optional(location) : std::nullopt);
    } else if (auto delegate = registry_.delegate(download->id)) {
      isSaved ? delegate->downloadDidFinish(download, location) : delegate->downloadDidFailed(download);
    }
  });
}

void DownloadNews::tellFailed(const DownloadTaskPointer& download) {
  posts_.postToMain([this, download] {
    if (!download->claimNotification()) return;
    if (auto delegate = registry_.delegate(download->id)) delegate->downloadDidFailed(download);
  });
}

void DownloadNews::tellFailedHandOver(const DownloadTaskPointer& download) {
  posts_.postToMain([this, download] {
    const auto delegate = registry_.delegate(download->id);
    if (delegate && !download->snapshot().notificationSent) delegate->downloadDidFailed(download);
  });
}

}  // namespace tarn

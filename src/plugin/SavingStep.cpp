#include "plugin/SavingStep.h"

#include "platform/Log.h"
#include "plugin/SimpleMediaSaver.h"

namespace tarn {
namespace {

void markFailed(ProcessingRun& run, const std::exception_ptr& failure) {
  run.download->update([&](DownloadTask::Snapshot& fields) {
    fields.status = DownloadStatus::failed;
    fields.reason = DownloadReason::error(failure);
  });
}

}  // namespace

void SavingStep::run(ProcessingRun& run) {
  run.timings.printSummary();
  run.updateProcessingStage(ProcessingStage::savingToPhotos);
  run.download->update([&](DownloadTask::Snapshot& fields) { fields.location = run.fileURL; });
  const std::string album = run.state.album.value_or("");
  if (album.empty()) {
    log("ERROR: No album name for download {}", run.state.downloadId);
    markFailed(run, std::make_exception_ptr(Error("TarnFetch", -1, "No album name specified")));
    return;
  }
  log("Saving video to Photos album: {}", album);
  try {
    std::string assetId = SimpleMediaSaver::saveVideo(photos_, clock_, run.fileURL, run.state.filename, album);
    log("Video saved successfully, asset ID: {}", assetId);
    run.download->update([&](DownloadTask::Snapshot& fields) {
      fields.status = DownloadStatus::completed;
      fields.assetId = assetId;
    });
  } catch (const Error& error) {
    log("ERROR saving to Photos: {}", error.description());
    markFailed(run, std::current_exception());
  }
}

}  // namespace tarn

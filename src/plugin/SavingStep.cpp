#include "plugin/SavingStep.h"

#include "platform/Log.h"
#include "plugin/SimpleMediaSaver.h"

namespace tarn {

void SavingStep::run(ProcessingRun& run) {
  run.timings.printSummary();
  run.updateProcessingStage(ProcessingStage::savingToPhotos);
  run.download->update([&](DownloadTask::Snapshot& fields) { fields.location = run.fileURL; });
  const std::string album = run.state.album.value_or("");
  if (album.empty()) {
    log("ERROR: No album name for download {}", run.state.downloadId);
    run.download->fail(std::make_exception_ptr(Error("TarnFetch", -1, "No album name specified")));
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
    run.download->fail(std::current_exception());
  }
}

}  // namespace tarn

#include "plugin/SavingStep.h"

#include "platform/Log.h"
#include "plugin/SimpleMediaSaver.h"

namespace tarn {

void SavingStep::run(ProcessingRun& run) {
  run.timings.printSummary();
  run.updateProcessingStage(ProcessingStage::savingToPhotos);
  const std::string album = run.state.album.value_or("");
  if (album.empty()) {
    log("ERROR: No album name for download {}", run.state.downloadId);
    const Error failure("TarnFetch", -1, "No album name specified");
    return run.outcome.setFailed(RunOutcome::Where::saving, std::make_exception_ptr(failure));
  }
  log("Saving video to Photos album: {}", album);
  try {
    std::string assetId = SimpleMediaSaver::saveVideo(photos_, clock_, run.fileURL, run.state.filename, album);
    log("Video saved successfully, asset ID: {}", assetId);
    run.outcome.setSaved(assetId);
    run.outcome.filename = run.state.filename;
    if (const auto facts = run.files.attributes(run.fileURL)) run.outcome.size = facts->size;
  } catch (const Error& error) {
    log("ERROR saving to Photos: {}", error.description());
    run.outcome.setFailed(RunOutcome::Where::saving, std::current_exception());
  }
}

}  // namespace tarn

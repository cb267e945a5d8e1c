#include "pipeline/ProcessingStep.h"

#include "platform/Log.h"

namespace tarn {

ProcessingRun::ProcessingRun(FileManager& fileManager, const Clock& clock, NamesInTheMaking& namesInTheMaking,
                             ProcessingRunListener& listener, ProcessingState record,
                             std::shared_ptr<DownloadTask> task, std::shared_ptr<CancellationToken> cancellationToken)
    : files(fileManager),
      names(namesInTheMaking),
      download(std::move(task)),
      token(std::move(cancellationToken)),
      fileURL(record.fileURL),
      state(std::move(record)),
      clock_(clock),
      listener_(listener) {}

void ProcessingRun::updateProcessingStage(ProcessingStage stage) {
  state.stage = stage;
  state.lastUpdated = clock_.now();
  if (listener_.saveRecord(*token, state)) log("Checkpoint saved: {}", description(stage));
}

void ProcessingRun::saveState() {
  listener_.saveRecord(*token, state);
}

void ProcessingRun::reportProgress(double progress, const std::string& stage) {
  listener_.progressUpdated(download, progress, stage);
}

void ProcessingRun::warn(const std::string& words) {
  log("Warning: {}", words);
  listener_.warned(words);
}

}  // namespace tarn

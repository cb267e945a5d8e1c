#pragma once

#include <functional>
#include <memory>
#include <string>

#include "download/DownloadTask.h"
#include "pipeline/ProcessingStep.h"
#include "support/ManualClock.h"

namespace tarn::test {

/// Has runs of a step on files of a test, and keeps what they store.
class RunRecorder : public ProcessingRunListener {
 public:
  ProcessingState record;                              ///< as it was stored last
  std::function<void(const ProcessingState&)> onSave;  ///< told of a new record before it is kept

  /// A run from the start. This must outlive it.
  ProcessingRun runOn(FileManager& files, const Path& file) {
    record = {};
    record.fileURL = file;
    return ProcessingRun(files, clock_, names_, *this, record, nullptr, token_);
  }

  bool saveRecord(const CancellationToken& /*token*/, const ProcessingState& state) override {
    if (onSave) onSave(state);
    record = state;
    return true;
  }
  void progressUpdated(const std::shared_ptr<DownloadTask>& /*task*/, double, const std::string&) override {}

 private:
  ManualClock clock_;
  NamesInTheMaking names_;
  std::shared_ptr<CancellationToken> token_ = std::make_shared<CancellationToken>();
};

}  // namespace tarn::test

#pragma once

#include <functional>
#include <memory>
#include <string>

#include "pipeline/ProcessingStep.h"
#include "support/ManualClock.h"

namespace tarn::test {

/// Has runs of a step on files of a test, and keeps what they store.
class RunRecorder : public RunListener {
 public:
  ProcessingState record;                              ///< as it was stored last
  std::string stages;                                  ///< of all records stored, each with a blank behind it
  std::function<void(const ProcessingState&)> onSave;  ///< told of a new record before it is kept
  std::shared_ptr<CancellationToken> token = std::make_shared<CancellationToken>();

  /// A run from the start. This must outlive it.
  ProcessingRun runOn(FileManager& files, const Path& file) {
    record = {};
    record.fileURL = file;
    return goOn(files);
  }
  /// One that takes up the record.
  ProcessingRun goOn(FileManager& files) {
    stages.clear();
    return ProcessingRun(files, clock_, names_, *this, record, token);
  }

  bool saveRecord(const CancellationToken& /*token*/, const ProcessingState& state) override {
    if (onSave) onSave(state);
    record = state;
    stages += std::string(rawValue(state.stage)) + " ";
    return true;
  }

 private:
  ManualClock clock_;
  NamesInTheMaking names_;
};

}  // namespace tarn::test

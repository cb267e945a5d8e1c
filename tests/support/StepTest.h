#pragma once

#include <functional>
#include <memory>
#include <string>

#include "pipeline/ProcessingStep.h"
#include "support/FileTest.h"
#include "support/ManualClock.h"

namespace tarn::test {

/// One step of the pipeline on the test's file.
class StepTest : public FileTest, public ProcessingRunListener {
 protected:
  bool saveRecord(const CancellationToken&, const ProcessingState& record) override {
    stages_ += std::string(rawValue(record.stage)) + " ";
    if (onSave_) onSave_();
    return true;
  }
  void progressUpdated(const std::shared_ptr<DownloadTask>&, double, const std::string&) override {}

  ProcessingRun newRun() {
    stages_.clear();
    ProcessingState state;
    state.fileURL = file_;
    return {files_, clock_, names_, *this, state, nullptr, token_};
  }

  std::string stages_;  ///< that were entered, each with a blank behind it
  std::function<void()> onSave_;
  ManualClock clock_;
  NamesInTheMaking names_;
  std::shared_ptr<CancellationToken> token_ = std::make_shared<CancellationToken>();
};

}  // namespace tarn::test

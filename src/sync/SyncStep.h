#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// Writes new edit lists where a track's own list is damaged or missing; lists that are right stay, and so does the
/// whole file then. A failure ends nothing: the file is as it was, and the run goes on.
class SyncStep : public ProcessingStep {
 public:
  ProcessingStage gateStage() const override { return ProcessingStage::syncFixing; }
  void run(ProcessingRun& run) override;
};

}  // namespace tarn

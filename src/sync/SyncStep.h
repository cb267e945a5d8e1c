#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// Writes the edit lists that make the tracks start together as in the source. A failure of the fix ends nothing: the
/// file is as it was, and the run goes on.
class SyncStep : public ProcessingStep {
 public:
  ProcessingStage gateStage() const override { return ProcessingStage::syncFixing; }
  void run(ProcessingRun& run) override;
};

}  // namespace tarn

#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// Finds out how the source's tracks stand to each other, before any repair, and leaves that to the sync step. Enters
/// no stage of its own. Files without audio are passed over; facts that cannot be read are no failure.
class SyncFactsStep : public ProcessingStep {
 public:
  ProcessingStage gateStage() const override { return ProcessingStage::transcodingPass1; }
  void run(ProcessingRun& run) override;
};

/// Writes the edit lists that make the tracks start together as in the source. A failure of the fix ends nothing: the
/// file is as it was, and the run goes on.
class SyncStep : public ProcessingStep {
 public:
  ProcessingStage gateStage() const override { return ProcessingStage::syncFixing; }
  void run(ProcessingRun& run) override;
};

}  // namespace tarn

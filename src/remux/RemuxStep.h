#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// Repairs the file's video track as VideoPlan decides: enters `remuxing`, and `remuxed` when the file is repaired or
/// needs no repair. A codec that cannot be detected, or that needs no remux, leaves the file as it is, and so do, with
/// a warning, a file that cannot be repaired and a result that would harm the presentation. Lack of room and failures
/// of the system are thrown.
class RemuxStep : public ProcessingStep {
 public:
  ProcessingStage gateStage() const override { return ProcessingStage::remuxing; }
  void run(ProcessingRun& run) override;
};

}  // namespace tarn

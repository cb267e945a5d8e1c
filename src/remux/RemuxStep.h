#pragma once

#include <optional>
#include <string>

#include "parameters/VideoCodec.h"
#include "pipeline/ProcessingStep.h"
#include "remux/VideoPlan.h"

namespace tarn {

/// Repairs the file's video track as VideoPlan decides: enters `remuxing`, and `remuxed` when the file is repaired or
/// needs no repair. A codec that cannot be detected, or that needs no remux, leaves the file as it is, and so do, with
/// a warning, a file that cannot be repaired and a result that would harm the presentation. Lack of room and failures
/// of the system are thrown.
class RemuxStep : public ProcessingStep {
 public:
  ProcessingStage gateStage() const override { return ProcessingStage::remuxing; }
  void run(ProcessingRun& run) override;

  /// What the last run has followed; nothing if there was no plan to make, or none could be made.
  const std::optional<VideoPlan>& plan() const { return plan_; }

 private:
  void remux(ProcessingRun& run, const VideoCodec& codec, const std::string& tag);

  std::optional<VideoPlan> plan_;
};

}  // namespace tarn

#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// Decides what a file's audio needs, and sees that it happens: nothing, an edit list that the sync step writes, a new
/// track of the same packets, or a decode and encode with the new track in the place of the old one. Files without
/// audio are skipped. Leaves the source's sync facts, and whether the track was replaced, to the sync step.
class AudioStep : public ProcessingStep {
 public:
  /// `workers`: see TranscodeConfig.
  explicit AudioStep(unsigned workers = 0) : workers_(workers) {}

  ProcessingStage gateStage() const override { return ProcessingStage::transcodingPass1; }
  void run(ProcessingRun& run) override;

 private:
  const unsigned workers_;
};

}  // namespace tarn

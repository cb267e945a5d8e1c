#pragma once

#include "pipeline/ProcessingStep.h"
#include "platform/Clock.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn {

/// The last step of a run: puts the finished video into the album. The outcome is then `saved`, or `failed` in saving.
/// It throws nothing of its own and does not look at the token: once saving has begun, it is not cancelled.
class SavingStep : public ProcessingStep {
 public:
  SavingStep(PHPhotoLibrary& photos, const Clock& clock) : photos_(photos), clock_(clock) {}

  ProcessingStage gateStage() const override { return ProcessingStage::savingToPhotos; }
  void run(ProcessingRun& run) override;

 private:
  PHPhotoLibrary& photos_;
  const Clock& clock_;
};

}  // namespace tarn

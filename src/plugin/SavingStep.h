#pragma once

#include "pipeline/ProcessingStep.h"
#include "platform/Clock.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn {

/// The last step of a run: puts the finished video into the album, and sets the task's status to `completed` or
/// `failed`. It throws nothing of its own and does not look at the token: once saving has begun, the run ends as
/// finished.
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

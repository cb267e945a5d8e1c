#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// The last step of a repair of one file: compares the result with the source, and moves it to its place, replacing
/// what is there. A result that would harm the presentation is not taken: a copy of the source takes the place then,
/// and the run warns.
class PlacingStep : public ProcessingStep {
 public:
  /// Both paths must be absolute.
  PlacingStep(Path source, Path place) : source_(std::move(source)), place_(std::move(place)) {}

  ProcessingStage gateStage() const override { return ProcessingStage::savingToPhotos; }
  void run(ProcessingRun& run) override;

 private:
  Path source_;
  Path place_;
};

}  // namespace tarn

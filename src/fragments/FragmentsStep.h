#pragma once

#include <string_view>

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// What is wrong with a movie in fragments, for people.
inline constexpr std::string_view inFragments =
    "the movie is in fragments, which many players and libraries do not take";

/// Makes a plain movie of one in fragments, and of a plain one that broke off one that ends well, before the steps
/// that know whole plain files alone; does nothing to any other file. It enters no stage of its own: cut off, it starts
/// over. A movie that cannot become a plain one because of what it is fails the run (FragmentsError). One that is
/// damaged otherwise stays as it is, with a warning, and so does one whose result is not what its fragments say. Lack
/// of room and failures of the system are thrown.
class FragmentsStep : public ProcessingStep {
 public:
  ProcessingStage gateStage() const override { return ProcessingStage::remuxing; }
  void run(ProcessingRun& run) override;
};

}  // namespace tarn

#pragma once

#include <string>
#include <vector>

#include "pipeline/ProcessingStep.h"
#include "presentation/PresentationChange.h"

namespace tarn {

/// What a repair as a whole may change of a file: where it replaced the sound, how that came to be, with packets that
/// lie up to one packet off their place. Each step has proved more of its own result, the bytes of the samples too.
AnnouncedChange announcedByRepair(const Presentation& source, bool soundWasReplaced);

/// What the result of a repair would do to the presentation of its source, in words for people; empty where it harms
/// nothing, and where the source's presentation cannot be read: there is nothing to compare then.
std::vector<std::string> harmsOfRepair(FileManager& sourceFiles, const Path& source, FileManager& resultFiles,
                                       const Path& result, bool soundWasReplaced);

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

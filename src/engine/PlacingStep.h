#pragma once

#include <optional>

#include "pipeline/ProcessingStep.h"
#include "platform/layers/LayeredFiles.h"

namespace tarn {

/// The last step of a repair of one file: compares the result with the source, makes it a real file with the input's
/// owner, mode, times and extended attributes, and moves that to its place, replacing what is there. A result that
/// would harm the presentation is not taken: a copy of the source takes the place then, and the run warns. What the
/// repair did not change is not written over the input. Throws Error if the source is no longer what it was before the
/// repair.
class PlacingStep : public ProcessingStep {
 public:
  struct Source {
    Path path;                            ///< what the result is compared with: the input, or what was rebuilt from it
    Path input;                           ///< a file of the disk
    std::optional<FileAttributes> facts;  ///< of the input, from before it was opened
  };

  struct Result {
    enum class Replaces {
      another,         ///< file than the input, or none
      input,           ///< which is lost
      inputThatIsKept  ///< as NAME.orig
    };

    Path made;   ///< the name under which it is written; nothing is there yet
    Path place;  ///< on the same file system
    Replaces replaces = Replaces::another;
  };

  /// The run's files must be layers over the source: `files`, or what passes everything on to them. Paths must be
  /// absolute.
  PlacingStep(LayeredFiles& files, Source source, Result result)
      : files_(files), source_(std::move(source)), result_(std::move(result)) {}

  ProcessingStage gateStage() const override { return ProcessingStage::savingToPhotos; }
  void run(ProcessingRun& run) override;

  /// True if the result is the input, byte for byte.
  bool isUnchanged() const { return isUnchanged_; }

 private:
  Path chosen(ProcessingRun& run) const;
  void place(ProcessingRun& run, const Path& taken) const;

  LayeredFiles& files_;
  const Source source_;
  const Result result_;
  bool isUnchanged_ = false;
};

}  // namespace tarn

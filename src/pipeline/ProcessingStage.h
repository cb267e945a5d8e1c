#pragma once

#include <optional>
#include <string_view>

namespace tarn {

/// How far a run has come, in pipeline order. A stage is stored when it is entered, so a stored step stage means that
/// the step did not finish.
enum class ProcessingStage {
  downloaded,
  remuxing,
  remuxed,
  transcodingPass1,
  transcodingPass2,
  transcoded,
  audioReplacing,
  audioReplaced,
  syncFixing,
  syncFixed,
  savingToPhotos,
  completed,
  failed,
};

/// The stored text of a stage; the stage of a stored text, or nothing for any other text.
std::string_view rawValue(ProcessingStage stage);
std::optional<ProcessingStage> processingStage(std::string_view rawValue);

/// The words for the log.
std::string_view description(ProcessingStage stage);

/// The stage that follows; nothing if the stage is final.
std::optional<ProcessingStage> nextStage(ProcessingStage stage);

/// True if work can go on after this stage without repeating anything.
bool isCleanCheckpoint(ProcessingStage stage);

/// The checkpoint that an interrupted step goes back to; any other stage itself.
ProcessingStage rollbackTarget(ProcessingStage stage);

/// True for `completed` and `failed`.
bool isFinal(ProcessingStage stage);

}  // namespace tarn

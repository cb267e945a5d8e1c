#include "pipeline/ProcessingStage.h"

#include <algorithm>
#include <array>

namespace tarn {
namespace {

enum class Kind { checkpoint, step, final };

struct Row {
  ProcessingStage stage;
  std::string_view rawValue;
  std::string_view description;
  std::optional<ProcessingStage> next;
  Kind kind;
  ProcessingStage rollback;
};

using enum ProcessingStage;

constexpr std::array<Row, 13> table{{
    {downloaded, "downloaded", "Downloaded", remuxing, Kind::checkpoint, downloaded},
    {remuxing, "remuxing", "Remuxing HEVC", remuxed, Kind::step, downloaded},
    {remuxed, "remuxed", "Remuxing complete", transcodingPass1, Kind::checkpoint, remuxed},
    {transcodingPass1, "transcodingPass1", "Analyzing audio", transcodingPass2, Kind::step, remuxed},
    {transcodingPass2, "transcodingPass2", "Transcoding audio", transcoded, Kind::step, remuxed},
    {transcoded, "transcoded", "Transcoding complete", audioReplacing, Kind::checkpoint, transcoded},
    {audioReplacing, "audioReplacing", "Replacing audio track", audioReplaced, Kind::step, transcoded},
    {audioReplaced, "audioReplaced", "Audio replacement complete", syncFixing, Kind::checkpoint, audioReplaced},
    {syncFixing, "syncFixing", "Fixing A/V sync", syncFixed, Kind::step, audioReplaced},
    {syncFixed, "syncFixed", "A/V sync complete", savingToPhotos, Kind::checkpoint, syncFixed},
    {savingToPhotos, "savingToPhotos", "Saving to Photos", completed, Kind::step, syncFixed},
    {completed, "completed", "Completed", std::nullopt, Kind::final, completed},
    {failed, "failed", "Failed", std::nullopt, Kind::final, failed},
}};

constexpr bool isInOrder() {
  for (size_t i = 0; i < table.size(); ++i) {
    if (table[i].stage != static_cast<ProcessingStage>(i)) return false;
  }
  return true;
}
static_assert(isInOrder(), "a stage is the index of its row");

const Row& row(ProcessingStage stage) {
  return table[static_cast<size_t>(stage)];
}

}  // namespace

std::string_view rawValue(ProcessingStage stage) {
  return row(stage).rawValue;
}

std::optional<ProcessingStage> processingStage(std::string_view rawValue) {
  auto found = std::ranges::find(table, rawValue, &Row::rawValue);
  if (found == table.end()) return std::nullopt;
  return found->stage;
}

std::string_view description(ProcessingStage stage) {
  return row(stage).description;
}

std::optional<ProcessingStage> nextStage(ProcessingStage stage) {
  return row(stage).next;
}

bool isCleanCheckpoint(ProcessingStage stage) {
  return row(stage).kind == Kind::checkpoint;
}

ProcessingStage rollbackTarget(ProcessingStage stage) {
  return row(stage).rollback;
}

bool isFinal(ProcessingStage stage) {
  return row(stage).kind == Kind::final;
}

}  // namespace tarn

#include "pipeline/ProcessingRun.h"

#include <algorithm>

#include "platform/Log.h"

namespace tarn {
namespace {

void addOnce(std::vector<std::string>& sentences, const std::string& sentence) {
  if (sentence.empty() || std::ranges::find(sentences, sentence) != sentences.end()) return;
  sentences.push_back(sentence);
}

}  // namespace

ProcessingRun::ProcessingRun(FileManager& fileManager, const Clock& clock, NamesInTheMaking& namesInTheMaking,
                             RunListener& listener, ProcessingState record,
                             std::shared_ptr<CancellationToken> cancellationToken)
    : files(fileManager),
      names(namesInTheMaking),
      token(std::move(cancellationToken)),
      fileURL(record.fileURL),
      state(std::move(record)),
      outcome{.id = state.downloadId},
      clock_(clock),
      listener_(listener) {
  for (const auto& words : {state.lostEnd, state.missing}) {
    if (!words) continue;
    outcome.isPartly = true;
    outcome.leftAlone.push_back(*words);
  }
}

void ProcessingRun::updateProcessingStage(ProcessingStage stage) {
  state.stage = stage;
  state.lastUpdated = clock_.now();
  if (listener_.saveRecord(*token, state)) log("Checkpoint saved: {}", description(stage));
}

void ProcessingRun::saveState() {
  listener_.saveRecord(*token, state);
}

void ProcessingRun::reportProgress(double progress, const std::string& stage) {
  listener_.progressUpdated(state.downloadId, progress, stage);
}

void ProcessingRun::warn(const std::string& words) {
  log("Warning: {}", words);
  outcome.leftAlone.push_back(words);
}

void ProcessingRun::leave(const std::string& words) {
  warn(words);
  addOnce(state.wrong, words);
}

void ProcessingRun::keepPart(const std::string& whatIsMissing) {
  // A pass that was cut off before the change has stored it.
  if (state.lostEnd != whatIsMissing) warn(whatIsMissing);
  outcome.isPartly = true;
  state.lostEnd = whatIsMissing;
}

void ProcessingRun::lack(const std::string& whatIsMissing) {
  if (state.missing != whatIsMissing) warn(whatIsMissing);
  outcome.isPartly = true;
  state.missing = whatIsMissing;
}

void ProcessingRun::startOver() {
  state.wrong.clear();
  state.done.clear();
  state.lostEnd.reset();
  state.missing.reset();
  state.restoreAskedFlags();
  outcome.isPartly = false;
  outcome.leftAlone.clear();
}

void ProcessingRun::mended(const std::string& wrong, const std::string& done) {
  addOnce(state.wrong, wrong);
  addOnce(state.done, done);
}

}  // namespace tarn

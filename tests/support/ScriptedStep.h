#pragma once

#include <fmt/ranges.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/ProcessingStep.h"

namespace tarn::test {

/// A step of the pipeline that enters the given stages and notes each; `during` runs after each entry and may throw, as
/// a worker does.
class ScriptedStep : public ProcessingStep {
 public:
  using During = std::function<void(ProcessingRun&, ProcessingStage)>;

  ScriptedStep(std::vector<ProcessingStage> stages, std::vector<std::string>& notes, During during = {})
      : stages_(std::move(stages)), notes_(notes), during_(std::move(during)) {}

  ProcessingStage gateStage() const override { return stages_.front(); }

  void run(ProcessingRun& run) override {
    for (ProcessingStage stage : stages_) {
      run.updateProcessingStage(stage);
      notes_.emplace_back(rawValue(stage));
      if (during_) during_(run, stage);
    }
  }

 private:
  const std::vector<ProcessingStage> stages_;
  std::vector<std::string>& notes_;
  const During during_;
};

/// Names joined by blanks, for comparisons that read well.
inline std::string joinedWords(const std::vector<std::string>& words) {
  return fmt::format("{}", fmt::join(words, " "));
}

}  // namespace tarn::test

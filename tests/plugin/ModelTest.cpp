// The engine under every order of events: a model of what it promises beside it, and steps drawn at random.

#include <gtest/gtest.h>

#include "plugin/EngineModel.h"

namespace tarn::test {
namespace {

#ifdef TARN_SANITIZED
constexpr uint32_t usualSeeds = 100;
#else
constexpr uint32_t usualSeeds = 2000;
#endif
constexpr uint32_t shares = 4;

/// The fewest of the steps that still break a promise.
std::vector<ModelStep> shortest(std::vector<ModelStep> steps) {
  for (size_t piece = steps.size() / 2; piece > 0;) {
    bool isShorter = false;
    for (size_t at = 0; at < steps.size();) {
      std::vector<ModelStep> fewer = steps;
      const auto from = fewer.begin() + static_cast<std::ptrdiff_t>(at);
      fewer.erase(from, from + static_cast<std::ptrdiff_t>(std::min(piece, fewer.size() - at)));
      if (EngineModel::brokenBy(fewer)) {
        steps = std::move(fewer);
        isShorter = true;
      } else {
        at += piece;
      }
    }
    if (!isShorter) piece /= 2;
  }
  return steps;
}

/// One share of the seeds.
class EngineModelTest : public testing::TestWithParam<uint32_t> {};

TEST_P(EngineModelTest, KeepsItsPromisesUnderEveryOrderOfEvents) {
  const uint32_t first = numberFrom("TARN_MODEL_FIRST", 0), seeds = numberFrom("TARN_MODEL_SEEDS", usualSeeds);
  for (uint32_t seed = first + GetParam(); seed < first + seeds; seed += shares) {
    const std::vector<ModelStep> steps = EngineDriver::drawSteps(seed, 200);
    if (!EngineModel::brokenBy(steps)) continue;
    const std::vector<ModelStep> fewest = shortest(steps);
    FAIL() << "seed " << seed << ": " << *EngineModel::brokenBy(fewest) << "\n" << text(fewest);
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, EngineModelTest, testing::Range(0U, shares));

}  // namespace
}  // namespace tarn::test

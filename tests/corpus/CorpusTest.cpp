#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>

#include "corpus/Judge.h"
#include "corpus/Kinds.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

/// The environment may ask for every n-th kind alone.
size_t stride() {
  const char* const asked = std::getenv("TARN_CORPUS_STRIDE");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return asked ? std::max(1UL, std::stoul(asked)) : 1;
}

class Corpus : public testing::TestWithParam<KindGroup> {};

TEST_P(Corpus, LosesItsDamageAndNothingElse) {
  for (size_t i = 0; i < GetParam().kinds.size(); i += stride()) {
    const Kind& kind = GetParam().kinds[i];
    const TempDirectory place;
    const Path file = kind.make(place.path()), reference = kind.reference ? kind.reference(place.path()) : file;
    const Path out = place / ("out" + file.extension().string());
    EXPECT_THAT(wrongsOfRepair(file, out, kind.outcome, reference, kind.allowed), testing::IsEmpty()) << kind.name;
  }
}

const auto nameOfGroup = [](const auto& group) { return group.param.name; };
INSTANTIATE_TEST_SUITE_P(Healthy, Corpus, testing::ValuesIn(healthyKinds()), nameOfGroup);
INSTANTIATE_TEST_SUITE_P(Damaged, Corpus, testing::ValuesIn(damagedKinds()), nameOfGroup);

}  // namespace
}  // namespace tarn::test

#include <gmock/gmock.h>

#include <algorithm>

#include "corpus/Judge.h"
#include "corpus/Kinds.h"
#include "support/NumberFrom.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

class Corpus : public testing::TestWithParam<KindGroup> {};

TEST_P(Corpus, LosesItsDamageAndNothingElse) {
  const uint32_t stride = std::max(1U, numberFrom("TARN_CORPUS_STRIDE", 1));
  for (size_t i = 0; i < GetParam().kinds.size(); i += stride) {
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

#include <gtest/gtest.h>

#include "media/DecodeCheck.h"
#include "support/Clip.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

TEST(DecodeCheck, ASampleThatHoldsMoreThanItsFrameIsNotKnownToBeGood) {
  const Clip clip(madeByFFmpeg(words("-f lavfi -i sine=d=1 -c:a aac"), ".m4a"));
  DecodeCheck check(DecodeCheck::Codec::aac, clip.track().formatDescriptions.at(0)->magicCookie);
  const auto samples = clip.samples();
  for (int64_t i = 0; i < 5; ++i) {
    ASSERT_TRUE(samples->next());
    Bytes sample = samples->data(i);
    if (i == 4) sample.insert(sample.end(), 200, 0xFF);
    EXPECT_EQ(check.take(sample, i), i < 4);
  }
  EXPECT_FALSE(check.finish());
  EXPECT_EQ(check.goodSamples(), 4U);
}

}  // namespace
}  // namespace tarn::test

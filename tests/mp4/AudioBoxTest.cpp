#include <gtest/gtest.h>

#include "mp4/AudioBoxBuilders.h"
#include "platform/Error.h"
#include "support/BoxBuilder.h"

namespace tarn {
namespace {

using namespace test;

TEST(AudioBoxes, HaveAnElementaryStreamDescriptorOfTheRightSizes) {
  EXPECT_EQ(buildEsdsBox(48000),
            bytesFrom("00000027 'esds' 00000000 03 19 0000 00 04 11 40 15 000000 0001F400 0001F400 "
                      "05 02 1190 06 01 02"));
  EXPECT_EQ(audioSpecificConfig(48000, 1), bytesFrom("1188"));
}

TEST(AudioBoxes, RefuseWhatDoesNotFit) {
  EXPECT_THROW(buildMdhdBox(-1, 0), Error);
  EXPECT_THROW(buildMvhdBox(48000, int64_t{1} << 32), Error);
  EXPECT_THROW(buildTkhdBox(-5), Error);
  EXPECT_THROW(buildStsdBox(48000, 48000, 3), Error);
  EXPECT_THROW(buildStsdBox(int64_t{1} << 32, 48000), Error);
  EXPECT_TRUE(canBeDescribed(24000, 1) && canBeDescribed(44100, 2));
  EXPECT_FALSE(canBeDescribed(32000, 2) || canBeDescribed(48000, 0) || canBeDescribed(48000, 3));
}

}  // namespace
}  // namespace tarn

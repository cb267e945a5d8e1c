#include <gtest/gtest.h>

#include "support/BoxBuilder.h"
#include "support/Clip.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

TEST(AVAsset, ListsTheTracksThatItsBoxesTellOf) {
  Clip real(madeByFFmpeg(
      words("-f lavfi -i testsrc2=size=64x64:rate=25 -f lavfi -i sine=r=48000 -map 1 -map 0 -map 1 -t 1 -c:v libx264 "
            "-c:a aac")));
  const Bytes longTimes = box("tkhd", {values({0x01000000, 0, 0, 0, 0, 7})});
  const Bytes sound = box("trak", {longTimes, mediaBox("soun")}), unnumbered = box("trak", {mediaBox("soun")});
  const std::pair<Bytes, std::vector<uint32_t>> rows[] = {
      {real.bytes(), {1, 3}},
      {{}, {}},
      {box("mdat", {box("moov", {sound})}), {}},
      {boxClaiming(UINT32_MAX, "moov", {sound}), {7}},
      {box("moov", {boxClaiming(7, "trak"), sound}), {}},
      {box("moov", {unnumbered, boxClaiming(UINT32_MAX, "trak", {mediaBox("soun")})}), {0, 0}},
  };
  Clip clip;
  EXPECT_TRUE(clip.asset.tracks(AVMediaType::audio).empty()) << "no file";
  for (const auto& [movie, trackIDs] : rows) {
    clip.write(movie);
    std::vector<uint32_t> found;
    for (const auto& track : clip.asset.tracks(AVMediaType::audio)) found.push_back(track.trackID);
    EXPECT_EQ(found, trackIDs);
  }
}

}  // namespace
}  // namespace tarn::test

#include <gtest/gtest.h>

#include "media/AVAssetReader.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/Clip.h"
#include "support/MediaMaker.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

const Bytes threeSamples = syntheticMovie({{.stts = {{3, 1024}}, .samples = 3}});

std::shared_ptr<AVAssetReaderTrackOutput> addedOutput(AVAssetReader& reader, const Clip& clip) {
  auto output = std::make_shared<AVAssetReaderTrackOutput>(clip.track());
  EXPECT_TRUE(reader.canAddOutput(*output));
  reader.addOutput(output);
  return output;
}

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

TEST(AVAssetReader, EndsWhenAllItsOutputsDoOrWhenCancelled) {
  EXPECT_THROW(AVAssetReader{Clip().asset}, PosixError) << "no file";
  const Clip clip(threeSamples);
  AVAssetReader reader(clip.asset), cancelled(clip.asset);
  const auto first = addedOutput(reader, clip), second = addedOutput(reader, clip), only = addedOutput(cancelled, clip);
  EXPECT_FALSE(first->copyNextSampleBuffer()) << "not started";
  ASSERT_TRUE(reader.startReading() && cancelled.startReading());
  for (int64_t i = 0; i < 3; ++i) EXPECT_EQ(first->copyNextSampleBuffer().value().sampleIndex, i);
  EXPECT_FALSE(first->copyNextSampleBuffer());
  EXPECT_EQ(reader.status(), AVAssetReaderStatus::reading);
  while (second->copyNextSampleBuffer()) continue;
  EXPECT_EQ(reader.status(), AVAssetReaderStatus::completed);
  cancelled.cancelReading();
  EXPECT_FALSE(only->copyNextSampleBuffer());
  EXPECT_EQ(cancelled.status(), AVAssetReaderStatus::cancelled);
}

TEST(AVAssetReader, TellsWhyItFailed) {
  for (const auto& [emptyTable, failure] :
       {std::pair("stco", "Sample 0 does not lie in the file"), {"stts", "stts names no sample"}}) {
    BoxEditor damaged(threeSamples);
    damaged.setField(damaged.at(std::string("moov/trak/mdia/minf/stbl/") + emptyTable).offset + 12, 0);
    const Clip clip(damaged.bytes);
    AVAssetReader reader(clip.asset);
    const auto output = addedOutput(reader, clip);
    EXPECT_EQ(reader.startReading(), emptyTable == std::string("stco"));
    EXPECT_FALSE(output->copyNextSampleBuffer());
    EXPECT_EQ(reader.status(), AVAssetReaderStatus::failed);
    EXPECT_EQ(reader.error().value().description(), failure);
  }
}

}  // namespace
}  // namespace tarn::test

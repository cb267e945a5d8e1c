#include <gtest/gtest.h>

#include "media/AVAsset.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;

TEST(AVAsset, ListsTheTracksOfARealFile) {
  PosixFileManager files("/nonexistent");
  Path file = madeByFFmpeg(
      words("-f lavfi -i testsrc2=size=64x64:rate=25 -f lavfi -i sine=r=48000 -map 1 -map 0 -map 1 -t 1 -c:v libx264 "
            "-c:a aac -video_track_timescale 12800 -ar:a:1 44100"));
  AVAsset asset(files, file);
  auto audio = asset.tracks(AVMediaType::audio);
  auto video = asset.tracks(AVMediaType::video);
  ASSERT_EQ(audio.size(), 2u);
  ASSERT_EQ(video.size(), 1u);
  EXPECT_EQ(audio[0].trackID, 1u);
  EXPECT_EQ(audio[0].naturalTimeScale, 48000u);
  EXPECT_EQ(video[0].trackID, 2u);
  EXPECT_EQ(video[0].naturalTimeScale, 12800u);
  EXPECT_EQ(audio[1].trackID, 3u);
  EXPECT_EQ(audio[1].naturalTimeScale, 44100u);
}

TEST(AVAsset, DamageGivesNoTracks) {
  TempDirectory directory;
  PosixFileManager files(directory.path());
  Path file = directory / "clip.mp4";
  EXPECT_TRUE(AVAsset(files, file).tracks(AVMediaType::audio).empty()) << "no file";
  Bytes longTimes = box("tkhd", {values({0x01000000, 0, 0, 0, 0, 7})});
  Bytes sound = box("trak", {longTimes, mediaBox("soun")});
  struct {
    Bytes bytes;
    size_t tracks;
  } cases[] = {
      {{}, 0},
      {box("mdat", {box("moov", {sound})}), 0},
      {boxClaiming(UINT32_MAX, "moov", {sound}), 1},
      {box("moov", {boxClaiming(7, "trak"), sound}), 0},
      {box("moov", {box("trak", {mediaBox("soun")}), boxClaiming(UINT32_MAX, "trak", {mediaBox("soun")})}), 2},
  };
  for (const auto& c : cases) {
    writeFileAtomically(files, file, c.bytes);
    EXPECT_EQ(AVAsset(files, file).tracks(AVMediaType::audio).size(), c.tracks);
  }
  writeFileAtomically(files, file, box("moov", {sound}));
  EXPECT_EQ(AVAsset(files, file).tracks(AVMediaType::audio).at(0).trackID, 7u);
}

}  // namespace
}  // namespace tarn

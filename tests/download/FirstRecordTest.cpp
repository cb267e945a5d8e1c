#include "download/FirstRecord.h"
#include "support/FileTest.h"
#include "support/ManualClock.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

class FirstRecord : public FileTest {};

TEST_F(FirstRecord, AsksForTheStepsThatTheFileAndTheOptionsCallFor) {
  const std::string pictures = "-f lavfi -i testsrc=size=64x48:rate=10:duration=1 ",
                    sound = "-f lavfi -i sine=duration=1 ", encoder = "-pix_fmt yuv420p -preset ultrafast ";
  const std::string whole = pictures + sound + encoder + "-c:v libx264", silent = pictures + encoder + "-c:v libx264",
                    foreign = pictures + sound + "-c:v mpeg4",
                    fragments = whole + " -movflags frag_keyframe+empty_moov",
                    lateFragments = whole + " -movflags frag_keyframe";
  struct {
    std::string clip;
    bool skipsVideo, skipsAudio;
    bool needsRemuxing, needsAudio, skipsSync;
  } rows[] = {
      {whole, false, false, true, true, false},     {whole, true, false, false, false, true},
      {whole, false, true, true, false, true},      {whole, true, true, false, false, true},
      {silent, false, false, true, false, false},   {foreign, false, false, false, true, false},
      {fragments, false, false, true, true, false}, {lateFragments, false, true, true, false, true},
      {fragments, true, false, false, false, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.clip);
    const DownloadRequest request{.url = "", .skipVideoFix = row.skipsVideo, .skipAudioFix = row.skipsAudio};
    const auto record = makeFirstRecord(files_, ManualClock(), 7, madeByFFmpeg(words(row.clip)), request);
    EXPECT_EQ(record.needsRemuxing, row.needsRemuxing);
    EXPECT_EQ(record.needsAudioTranscode, row.needsAudio);
    EXPECT_EQ(record.skipAVSync, row.skipsSync);
    EXPECT_EQ(record.stage, ProcessingStage::downloaded);
  }
}

/// Flags go off and never on; all of them if the movie could not be made plain.
TEST_F(FirstRecord, FlagsFollowTheFileThatTheFragmentsStepLeaves) {
  const std::string pictures = "-f lavfi -i testsrc=size=64x48:rate=10:duration=1 -pix_fmt yuv420p ";
  const struct {
    std::string clip;
    bool needsRemuxing, needsAudio, skipsSync;
  } rows[] = {
      {pictures + "-c:v libx264", true, false, false},
      {pictures + "-c:v mpeg4", false, false, false},
      {"-f lavfi -i sine=duration=1 -c:a aac", false, true, false},
      {pictures + "-c:v libx264 -movflags frag_keyframe+empty_moov", false, false, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.clip);
    ProcessingState record{
        .fileURL = madeByFFmpeg(words(row.clip)), .needsRemuxing = true, .needsAudioTranscode = true};
    deriveFlags(files_, record);
    EXPECT_EQ(record.needsRemuxing, row.needsRemuxing);
    EXPECT_EQ(record.needsAudioTranscode, row.needsAudio);
    EXPECT_EQ(record.skipAVSync, row.skipsSync);
    ProcessingState skipping{.fileURL = record.fileURL, .skipAVSync = true};
    deriveFlags(files_, skipping);
    EXPECT_FALSE(skipping.needsRemuxing || skipping.needsAudioTranscode || !skipping.skipAVSync);
  }
}

}  // namespace
}  // namespace tarn::test

#include "download/FirstRecord.h"
#include "support/FileTest.h"
#include "support/ManualClock.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

class FirstRecord : public FileTest {};

std::string asked(const ProcessingState& record) {
  return std::string(record.needsRemuxing ? "video " : "") + (record.needsAudioTranscode ? "sound " : "") +
         (record.skipAVSync ? "" : "sync");
}

TEST_F(FirstRecord, AsksForTheStepsThatTheFileAndTheOptionsCallFor) {
  const std::string pictures = "-f lavfi -i testsrc=size=64x48:rate=10:duration=1 ",
                    sound = "-f lavfi -i sine=duration=1 ", h264 = "-pix_fmt yuv420p -preset ultrafast -c:v libx264",
                    whole = pictures + sound + h264, all = "video sound sync";
  const struct {
    std::string clip, asked, afterFragments;
  } rows[] = {
      {whole, all, all},
      {pictures + h264, "video sync", "video sync"},
      {pictures + sound + "-c:v mpeg4", "sound sync", "sound sync"},
      {sound + "-c:a aac", "sound sync", "sound sync"},
      // The steps see a plain file. If the movie could not be made one, they leave it alone.
      {whole + " -movflags frag_keyframe+empty_moov", all, ""},
      {whole + " -movflags frag_keyframe", all, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.clip);
    const Path clip = madeByFFmpeg(words(row.clip));
    const auto askedBy = [&](bool skipsVideo, bool skipsSound) {
      const DownloadRequest request{.url = "", .skipVideoFix = skipsVideo, .skipAudioFix = skipsSound};
      return asked(makeFirstRecord(files_, ManualClock(), 7, clip, request));
    };
    EXPECT_EQ(askedBy(false, false), row.asked);
    EXPECT_EQ(askedBy(false, true), row.asked.starts_with("video ") ? "video " : "");
    EXPECT_EQ(askedBy(true, false) + askedBy(true, true), "");
    ProcessingState record{.fileURL = clip, .needsRemuxing = true, .needsAudioTranscode = true};
    deriveFlags(files_, record);
    EXPECT_EQ(asked(record), row.afterFragments);
    ProcessingState skipping{.fileURL = clip, .skipAVSync = true};
    deriveFlags(files_, skipping);
    EXPECT_EQ(asked(skipping), "") << "flags go off and never on";
  }
}

}  // namespace
}  // namespace tarn::test

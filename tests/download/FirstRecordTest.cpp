#include <gtest/gtest.h>

#include "download/FirstRecord.h"
#include "support/BoxBuilder.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/SyntheticMovie.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

class FirstRecordTest : public testing::Test, protected TestHome {};

TEST_F(FirstRecordTest, TheFilesTracksAndTheTwoOptionsDecideWhatARunDoes) {
  struct Row {
    std::string tag;
    bool hasAudio, skipVideoFix, skipAudioFix;
    bool needsRemuxing, needsAudioTranscode, skipAVSync;
  };
  const Row rows[] = {
      {"hvc1", true, false, false, true, true, false},   {"hvc1", true, true, false, false, false, true},
      {"hvc1", true, false, true, true, false, true},    {"hvc1", true, true, true, false, false, true},
      {"avc3", false, false, false, true, false, false}, {"hev1", false, false, true, true, false, true},
      {"avc1", true, false, false, true, true, false},   {"encv", true, false, false, false, true, false},
  };
  LogCapture lines;
  ManualClock clock;
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.tag << row.skipVideoFix << row.skipAudioFix);
    std::vector<SyntheticTrack> tracks{{.handler = "vide", .sampleEntry = visualSampleEntry(row.tag)}};
    if (row.hasAudio) tracks.push_back({});
    const Path file = put("clip.mp4", textOf(syntheticMovie(tracks)));
    const ProcessingState state = makeFirstRecord(files_, clock,
                                                  {.id = 7,
                                                   .filename = "clip.mp4",
                                                   .album = "Trips",
                                                   .fileURL = file,
                                                   .skipVideoFix = row.skipVideoFix,
                                                   .skipAudioFix = row.skipAudioFix});
    EXPECT_EQ(state.needsRemuxing, row.needsRemuxing);
    EXPECT_EQ(state.needsAudioTranscode, row.needsAudioTranscode);
    EXPECT_EQ(state.skipAVSync, row.skipAVSync);
    EXPECT_TRUE(state.stage == ProcessingStage::downloaded && state.lastUpdated == clock.now());
  }
}

}  // namespace
}  // namespace tarn::test

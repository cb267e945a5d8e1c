#include "parameters/NALUnitParser.h"
#include "remux/RemuxFixture.h"
#include "remux/RemuxStep.h"
#include "support/StepTest.h"

namespace tarn {
namespace {

using namespace test;

class RemuxStepTest : public StepTest {
 protected:
  ProcessingTimings runStep(const Bytes& movie) {
    write(movie);
    ProcessingRun run = newRun();
    RemuxStep().run(run);
    return run.timings;
  }
};

TEST_F(RemuxStepTest, RepairsByCodecAndEntersItsStages) {
  struct {
    Bytes movie;
    std::optional<std::string> tag;  ///< behind it
    std::string line;
  } cases[] = {
      {withoutParameterSets(readFile(files_, encodedVideo(inBand(true))), true), "hvc1", "HEVC remuxing completed"},
      {withoutParameterSets(readFile(files_, encodedVideo(inBand(false))), false), "avc1", "AVC remuxing completed"},
      {box("moov", {trackBox("vide", {sampleDescriptionBox({visualSampleEntry("vp09")})})}), "vp09",
       "Codec vp09 does not require remuxing"},
      {Bytes(), {}, "WARNING: Could not detect video codec (detection failed)"},
  };
  for (const auto& c : cases) {
    auto timings = runStep(c.movie);
    EXPECT_EQ(stages_, "remuxing remuxed ");
    EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), c.tag);
    EXPECT_TRUE(log_.contains(c.line)) << c.line;
    bool isRepaired = c.tag == "hvc1" || c.tag == "avc1";
    EXPECT_EQ(timings.hevcRemuxTotal > 0 && timings.hevcRemuxing.writeAtomicMP4 > 0, isRepaired);
    EXPECT_EQ(written() != c.movie, isRepaired);
  }
  runStep(box("moov", {trackBox("vide", {box("stsd")})}));
  EXPECT_EQ(stages_, "remuxing remuxed ");
  EXPECT_TRUE(log_.contains("ERROR detecting video codec: the data are too short for version and flags"));
}

TEST_F(RemuxStepTest, PassesFailuresOn) {
  Bytes movie = readFile(files_, encodedVideo({.codec = "libx265"}));
  EXPECT_THROW(runStep(movie), NALUnitParserError);
  EXPECT_EQ(stages_, "remuxing ");
  EXPECT_THAT(log_.lines(), testing::Contains(testing::StartsWith("ERROR during HEVC remuxing: ")));
  token_->cancel();
  EXPECT_THROW(runStep(movie), CancellationError);
  EXPECT_EQ(stages_, "");
}

}  // namespace
}  // namespace tarn

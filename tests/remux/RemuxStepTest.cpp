#include "parameters/NALUnitParser.h"
#include "remux/RemuxFixture.h"
#include "remux/RemuxStep.h"
#include "support/BoxBuilder.h"
#include "support/RunRecorder.h"

namespace tarn {
namespace {

using namespace test;

class RemuxStepTest : public FileTest {
 protected:
  ProcessingTimings runStep(const Bytes& movie) {
    write(movie);
    ProcessingRun run = recorder_.runOn(files_, file_);
    RemuxStep().run(run);
    return run.timings;
  }

  RunRecorder recorder_;
};

TEST_F(RemuxStepTest, RepairsByCodecAndEntersItsStages) {
  auto timings = runStep(withoutParameterSets(readFile(files_, encodedVideo(inBandHEVC)), true));
  EXPECT_EQ(recorder_.stages, "remuxing remuxed ");
  EXPECT_GT(timings.hevcRemuxTotal, 0);
  EXPECT_GT(timings.hevcRemuxing.writeAtomicMP4, 0);
  EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), "hvc1");

  runStep(withoutParameterSets(readFile(files_, encodedVideo(inBandAVC)), false));
  EXPECT_EQ(MP4Remuxer::detectHEVCTag(files_, file_), "avc1");

  const std::pair<Bytes, const char*> others[] = {
      {Bytes(), "WARNING: Could not detect video codec (detection failed)"},
      {box("moov", {trackBox("vide", {sampleDescriptionBox({visualSampleEntry("vp09")})})}),
       "Codec vp09 does not require remuxing"},
      {box("moov", {trackBox("vide", {box("stsd")})}),
       "ERROR detecting video codec: the data are too short for version and flags"},
  };
  for (const auto& [other, line] : others) {
    runStep(other);
    EXPECT_EQ(recorder_.stages, "remuxing remuxed ");
    EXPECT_EQ(written(), other);
    EXPECT_TRUE(log_.contains(line)) << line;
  }
}

TEST_F(RemuxStepTest, PassesFailuresOn) {
  Bytes movie = readFile(files_, encodedVideo({.codec = "libx265"}));
  EXPECT_THROW(runStep(movie), NALUnitParserError);
  EXPECT_EQ(recorder_.stages, "remuxing ");
  EXPECT_THAT(log_.lines(), testing::Contains(testing::StartsWith("ERROR during HEVC remuxing: ")));
  recorder_.token->cancel();
  EXPECT_THROW(runStep(movie), CancellationError);
  EXPECT_EQ(recorder_.stages, "");
}

}  // namespace
}  // namespace tarn

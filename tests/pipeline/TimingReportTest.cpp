#include <gtest/gtest.h>

#include "pipeline/RemuxTimingHelper.h"
#include "support/LogCapture.h"

namespace tarn::test {
namespace {

TEST(TimingReportTest, PrintsTheTableOfARun) {
  ProcessingTimings timings;
  timings.hevcRemuxTotal = 1.5;
  timings.hevcRemuxing.writeMdat = 0.25;
  timings.avSyncFixTotal = 1234.5678;
  const std::vector<std::string> expected = {
      "",
      "╔═══════════════════════════════════════════════════════════╗",
      "║         VIDEO PROCESSING TIMING SUMMARY                   ║",
      "╠═══════════════════════════════════════════════════════════╣",
      "║ HEVC REMUXING:                            1.500s          ║",
      "║   - Parameter extraction:       0.000s                    ║",
      "║   - Read moov box:              0.000s                    ║",
      "║   - Build hvcC box:             0.000s                    ║",
      "║   - Inject hvcC into moov:      0.000s                    ║",
      "║   - Write atomic MP4:           0.000s                    ║",
      "║       Find box layout:          0.000s                    ║",
      "║       Adjust offsets:           0.000s                    ║",
      "║       Write other boxes:        0.000s                    ║",
      "║       Write moov:               0.000s                    ║",
      "║       Write mdat:               0.250s                    ║",
      "║       Sync & replace:           0.000s                    ║",
      "╠───────────────────────────────────────────────────────────╣",
      "║ AUDIO TRANSCODING:                          skipped       ║",
      "╠───────────────────────────────────────────────────────────╣",
      "║ A/V SYNC FIX:                          1234.568s          ║",
      "║   - Read moov:                  0.000s                    ║",
      "║   - Analyze sync:               0.000s                    ║",
      "║   - Build edit lists:           0.000s                    ║",
      "║   - Convert CTTS:               0.000s                    ║",
      "║   - Write moov:                 0.000s                    ║",
      "╠═══════════════════════════════════════════════════════════╣",
      "║ GRAND TOTAL:                           1236.068s          ║",
      "╚═══════════════════════════════════════════════════════════╝",
      "",
  };
  LogCapture lines;
  timings.printSummary();
  EXPECT_EQ(lines.lines(), expected);
}

TEST(TimingReportTest, ShowsTheStepsThatARunTook) {
  ProcessingTimings timings;
  timings.hevcRemuxTotal = 1;
  timings.hevcRemuxing.isMultipleSampleEntries = true;
  timings.audioTranscodeTotal = 1;
  LogCapture lines;
  timings.printSummary();
  EXPECT_TRUE(lines.contains("║   - Rebuild sample tables:      0.000s                    ║"));
  EXPECT_FALSE(lines.contains("║   - Build hvcC box:             0.000s                    ║"));
  EXPECT_TRUE(lines.contains("║   - Pass 1 (gap detection):     0.000s                    ║"));
  EXPECT_TRUE(lines.contains("║ A/V SYNC FIX:                               skipped       ║"));
}

}  // namespace
}  // namespace tarn::test

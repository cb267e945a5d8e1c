#include <gtest/gtest.h>

#include "pipeline/RemuxTimingHelper.h"
#include "support/LogCapture.h"

namespace tarn::test {
namespace {

TEST(TimingReportTest, PrintsTheTableOfARun) {
  ProcessingTimings timings;
  timings.hevcRemuxTotal = 1.5;
  timings.hevcRemuxing = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, true};
  timings.avSyncFixTotal = 1234.5678;
  timings.avSyncFix = {1, 2, 3, 4, 5};
  timings.audioTranscodeTotal = 0.25;
  timings.audioTranscoding = {17, 18, 19};
  const std::string expected = R"(
╔═══════════════════════════════════════════════════════════╗
║         VIDEO PROCESSING TIMING SUMMARY                   ║
╠═══════════════════════════════════════════════════════════╣
║ HEVC REMUXING:                            1.500s          ║
║   - Parameter extraction:       1.000s                    ║
║   - Read moov box:              2.000s                    ║
║   - Parse sample table:        12.000s                    ║
║   - Detect segments:           13.000s                    ║
║   - Build sample entries:      14.000s                    ║
║   - Rebuild sample tables:     15.000s                    ║
║   - Build new moov:            16.000s                    ║
║   - Write atomic MP4:           5.000s                    ║
║       Find box layout:          6.000s                    ║
║       Adjust offsets:           7.000s                    ║
║       Write other boxes:        8.000s                    ║
║       Write moov:               9.000s                    ║
║       Write mdat:              10.000s                    ║
║       Sync & replace:          11.000s                    ║
╠───────────────────────────────────────────────────────────╣
║ AUDIO TRANSCODING:                        0.250s          ║
║   - Pass 1 (gap detection):    17.000s                    ║
║   - Pass 2 (transcode):        18.000s                    ║
║   - Track replacement:         19.000s                    ║
╠───────────────────────────────────────────────────────────╣
║ A/V SYNC FIX:                          1234.568s          ║
║   - Read moov:                  1.000s                    ║
║   - Analyze sync:               2.000s                    ║
║   - Build edit lists:           3.000s                    ║
║   - Convert CTTS:               4.000s                    ║
║   - Write moov:                 5.000s                    ║
╠═══════════════════════════════════════════════════════════╣
║ GRAND TOTAL:                           1236.318s          ║
╚═══════════════════════════════════════════════════════════╝

)";
  LogCapture lines;
  timings.printSummary();
  std::string printed;
  for (const std::string& line : lines.lines()) printed += line + "\n";
  EXPECT_EQ(printed, expected);

  timings.hevcRemuxing.isMultipleSampleEntries = false;
  timings.audioTranscodeTotal = 0;
  timings.printSummary();
  EXPECT_TRUE(lines.contains("║   - Build hvcC box:             3.000s                    ║"));
  EXPECT_TRUE(lines.contains("║   - Inject hvcC into moov:      4.000s                    ║"));
  EXPECT_TRUE(lines.contains("║ AUDIO TRANSCODING:                          skipped       ║"));
}

}  // namespace
}  // namespace tarn::test

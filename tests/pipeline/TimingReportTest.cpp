#include <gtest/gtest.h>

#include "pipeline/RemuxTimingHelper.h"
#include "support/LogCapture.h"

namespace tarn::test {
namespace {

/// The times of a run's table in their order.
std::string printed(const ProcessingTimings& timings) {
  const LogCapture log;
  timings.printSummary();
  std::string times;
  for (const std::string& line : log.lines()) {
    const size_t last = line.find_last_not_of(' ', line.rfind("║") - 1);
    if (last == std::string::npos || line[last] != 's') continue;
    const size_t start = line.find_last_not_of("0123456789.", last - 1) + 1;
    if (start < last) times += line.substr(start, last - start) + " ";
  }
  return times;
}

TEST(TimingReportTest, PrintsEachTimeOnceInItsOwnRow) {
  ProcessingTimings timings;
  timings.hevcRemuxTotal = 1.5;
  timings.hevcRemuxing = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, true};
  timings.avSyncFixTotal = 1234.5678;
  timings.avSyncFix = {1, 2, 3, 4, 5};
  timings.audioTranscodeTotal = 0.25;
  timings.audioTranscoding = {17, 18, 19};
  EXPECT_EQ(printed(timings),
            "1.500 1.000 2.000 12.000 13.000 14.000 15.000 16.000 5.000 6.000 7.000 8.000 9.000 10.000 11.000 "
            "0.250 17.000 18.000 19.000 1234.568 1.000 2.000 3.000 4.000 5.000 1236.318 ");
  timings.hevcRemuxing.isMultipleSampleEntries = false;
  EXPECT_NE(printed(timings).find(" 3.000 4.000 "), std::string::npos);
}

}  // namespace
}  // namespace tarn::test

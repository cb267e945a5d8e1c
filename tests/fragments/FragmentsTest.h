#pragma once

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <string>

#include "fragments/FragmentsError.h"
#include "fragments/FragmentsStep.h"
#include "support/FileTest.h"
#include "support/RunRecorder.h"

namespace tarn::test {

/// Runs the step on files and tells what became of them.
class FragmentsTest : public FileTest {
 protected:
  /// Returns what the step warns of, or how it fails, and leaves the file in the place of the one that was written.
  std::string join(const Bytes& movie) {
    write(movie);
    RunRecorder recorder;
    ProcessingRun run = recorder.runOn(files_, file_);
    isPartly_ = false;
    try {
      FragmentsStep().run(run);
    } catch (const FragmentsError& refusal) {
      EXPECT_EQ(written(), movie);
      return "refused: " + refusal.description();
    }
    EXPECT_TRUE(run.state.tempFiles.empty());
    EXPECT_TRUE(files_.contentsOfDirectory(files_.temporaryDirectory()).empty());
    isPartly_ = run.outcome.isPartly;
    return fmt::format("{}", fmt::join(run.outcome.leftAlone, "; "));
  }

  bool isPartly_ = false;
};

}  // namespace tarn::test

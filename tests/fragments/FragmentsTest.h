#pragma once

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <exception>
#include <string>
#include <vector>

#include "fragments/FragmentsStep.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/RunRecorder.h"

namespace tarn::test {

/// The edit list of a `trak` in words: "20 from -1, 50 from 10".
inline std::string editsOf(BoxTree& trak) {
  if (trak.child("edts") == trak.children.end()) return "";
  const Bytes& list = trak.at("edts/elst").fields;
  const auto number = [&](size_t at) { return static_cast<int32_t>(readUInt32(list, at).value()); };
  std::vector<std::string> rows;
  for (size_t at = 8; at < list.size(); at += 12) rows.push_back(fmt::format("{} from {}", number(at), number(at + 4)));
  return fmt::format("{}", fmt::join(rows, ", "));
}

/// Runs the step on files and tells what became of them.
class FragmentsTest : public FileTest {
 protected:
  /// Runs the step on such a file, and leaves the result in its place. Returns how the step fails, in words.
  std::string runStep(const Bytes& bytes) {
    RunRecorder recorder;
    ProcessingRun run = recorder.runOn(files_, write(bytes));
    std::string failure;
    try {
      FragmentsStep().run(run);
    } catch (const Error& error) {
      run.outcome.setFailed(RunOutcome::Where::repair, std::current_exception());
      failure = error.description();
    }
    EXPECT_TRUE(run.state.tempFiles.empty());
    EXPECT_TRUE(files_.contentsOfDirectory(files_.temporaryDirectory()).empty());
    outcome_ = run.outcome;
    return failure;
  }

  /// The same for a movie that the step joins or refuses. Returns what it warns of, or its refusal.
  std::string join(const Bytes& movie) {
    const std::string refusal = runStep(movie);
    if (refusal.empty()) return fmt::format("{}", fmt::join(outcome_.leftAlone, "; "));
    EXPECT_TRUE(outcome_.isRefused);
    EXPECT_EQ(written(), movie);
    return "refused: " + refusal;
  }

  RunOutcome outcome_;  ///< of the last run
};

}  // namespace tarn::test

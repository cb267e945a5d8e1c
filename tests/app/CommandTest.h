#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "support/DamagedMovies.h"
#include "support/Eventually.h"
#include "support/FaultServer.h"
#include "support/MediaMaker.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

/// A recording whose tag a repair changes.
inline const Bytes& recording() {
  return damagedMovie("avc3 with avcC");
}

/// The real command, with a home and a server of the test's own.
class CommandTest : public testing::Test {
 protected:
  using Child = std::unique_ptr<ChildProgram>;

  TarnResult run(const std::vector<std::string>& arguments) const { return runTarn(home_, arguments); }
  /// Runs a command that must leave with this code and say these words.
  TarnResult expect(int code, const std::vector<std::string>& arguments, const std::string& words = "") const {
    SCOPED_TRACE(testing::PrintToString(arguments));
    TarnResult result = run(arguments);
    EXPECT_EQ(result.exitCode, code) << result.errors;
    EXPECT_THAT(result.output + result.errors, HasSubstr(words));
    return result;
  }
  Child start(const std::vector<std::string>& arguments) const { return startOther(tarnCommand(home_, arguments)); }
  Child startOther(const std::vector<std::string>& command) const {
    return std::make_unique<ChildProgram>(command, place_.path());
  }
  static TarnResult ended(const Child& child) {
    const int code = child->wait();
    return {code, child->output(), child->errors()};
  }

  /// Writes a file, in directories that need not be there; returns its path.
  static std::string put(const Path& file, std::string_view content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
  }
  static std::string put(const Path& file, const Bytes& content) { return put(file, textOf(content)); }

  TempDirectory place_;
  Path home_ = place_ / "home";
  FaultServer server_;
};

}  // namespace tarn::test

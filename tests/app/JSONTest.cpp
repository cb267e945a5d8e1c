#include <sstream>

#include "app/CommandTest.h"
#include "support/RawHTTP.h"

namespace tarn::test {
namespace {

/// Reads one JSON line from each line of its input; prints those that the schema does not permit.
constexpr const char* validator = R"(
import json, sys
try:
    from jsonschema import Draft202012Validator
except ImportError:
    sys.exit("the package python3-jsonschema is missing")
check = Draft202012Validator(json.load(open(sys.argv[1])))
for line in open(sys.argv[2]):
    for error in check.iter_errors(json.loads(line)):
        parts = [p.message for p in sorted(error.context or [error], key=lambda p: -len(p.absolute_path))]
        print(line.strip()[:400], "\n   ", "; ".join(parts)[:600])
)";

class JSONTest : public CommandTest {
 protected:
  /// Runs a command with --json and keeps its lines. The result that each tells, in order.
  std::string run(std::vector<std::string> arguments, int exitCode = 0) {
    arguments.emplace_back("--json");
    const TarnResult ended = CommandTest::run(arguments);
    EXPECT_EQ(ended.exitCode, exitCode) << arguments.front() << ": " << ended.output << ended.errors;
    lines_ += ended.output;
    std::string results;
    std::istringstream lines(ended.output);
    for (std::string line; std::getline(lines, line);) {
      const std::string result = between(line, "\"result\":\"", "\"");
      if (!result.empty()) results += (results.empty() ? "" : " ") + result;
    }
    return results;
  }

  /// What of all the lines the schema does not permit.
  std::string violations() const {
    const Path script = place_ / "validate.py", all = place_ / "lines";
    std::ofstream(script) << validator;
    std::ofstream(all) << lines_;
    // The machine's own Python has the package; one that comes first in PATH may not.
    const TarnResult told = ended(
        startOther({"/bin/sh", "-c",
                    "python3 -c 'import jsonschema' 2>/dev/null && exec python3 \"$@\"; exec /usr/bin/python3 \"$@\"",
                    "sh", script, JSON_SCHEMA, all}));
    return told.exitCode == 0 ? told.output : told.output + told.errors;
  }

  std::string lines_;
};

TEST_F(JSONTest, EachLineOfEachCommandIsWhatTheSchemaSays) {
  std::vector<std::string> all{"inspect"};
  for (const DamagedMovie& movie : damagedMovies()) all.push_back(put(place_ / movie.name, movie.bytes));
  run(all, 1);
  const std::string good = put(place_ / "good.mp4", damagedMovie("avc1")), bad = put(place_ / "bad.mp4", recording());
  const std::string page = put(place_ / "page.mp4", "<html>"), out = place_ / "out.mp4";
  EXPECT_EQ(run({"inspect", good}), "inspected");
  EXPECT_EQ(run({"inspect", bad}, 3), "inspected");
  EXPECT_EQ(run({"inspect", page}, 4), "inspected");
  EXPECT_EQ(run({"inspect", "/nowhere", good}, 1), "failed inspected");
  EXPECT_EQ(run({"inspect", "--plot", "a.svg", good, bad}, 2), "usage");

  EXPECT_EQ(run({"repair", bad, "-o", out}), "repaired");
  EXPECT_EQ(run({"repair", put(place_ / "cut.mp4", damagedMovie("cut off")), "-o", out}, 5), "partly");
  EXPECT_EQ(run({"repair", good, "-o", out}), "unchanged");
  EXPECT_EQ(run({"repair", page, "-o", out}, 4), "refused");
  EXPECT_EQ(run({"repair", place_ / "none.mp4", "-o", out}, 1), "failed");
  const std::string report = place_ / "report.jsonl";
  EXPECT_EQ(run({"repair", good, bad, page, "--jobs", "1", "--output-dir", place_ / "outs", "--report", report}, 1),
            "unchanged repaired refused failed");
  lines_ += contentOf(report);

  server_.serve("/clip.mp4", ServedFile::of(recording()));
  EXPECT_EQ(run({"save", server_.url("/clip.mp4"), "--album", "Trips"}), "saved");
  EXPECT_EQ(run({"save", server_.url("/none.mp4"), "--album", "Trips"}, 1), "failed");
  server_.serve("/gap.mp4", ServedFile::of(damagedMovie("a gap in the sound")));
  EXPECT_EQ(run({"save", server_.url("/gap.mp4"), "--album", "Trips"}), "saved");
  const size_t before = lines_.size();
  run({"downloads"});
  EXPECT_THAT(lines_.substr(before), HasSubstr(R"("done":["filled the gap with silence and encoded the sound anew"])"))
      << "a download sums itself up as a repair does";
  run({"library"});
  EXPECT_EQ(run({"library", "rename", "clip.mp4", "sea"}), "renamed");
  EXPECT_EQ(run({"library", "move", "sea.mp4", "--to", "Home"}), "moved");
  EXPECT_EQ(run({"library", "export", place_ / "out", "sea.mp4"}), "exported");
  EXPECT_EQ(run({"library", "export", place_ / "out", "sea.mp4"}, 1), "failed");
  EXPECT_EQ(run({"library", "open", "sea.mp4"}), "found");
  EXPECT_EQ(run({"library", "remove", "sea.mp4"}), "removed");
  run({"library", "--removed"});
  EXPECT_EQ(run({"library", "restore", "sea.mp4"}), "restored");
  EXPECT_EQ(run({"library", "remove", "--now", "sea.mp4"}), "erased");
  run({"resume"});
  run({"cancel", "none"}, 1);
  EXPECT_EQ(violations(), "");

  // The validator is there, and sees a member that nobody has described.
  lines_ = R"({"schema":1,"result":"saved","id":1,"path":"/a","surprise":true})";
  EXPECT_THAT(violations(), HasSubstr("surprise"));
}

}  // namespace
}  // namespace tarn::test

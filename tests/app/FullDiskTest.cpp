#include "app/CommandTest.h"
#include "app/Commands.h"

// Commands on a disk that has no room left. It is a small file system in memory, in a name space of its own, so that
// it goes with the last process there.

namespace tarn::test {
namespace {

class FullDiskTest : public CommandTest {
 protected:
  void SetUp() override {
    fs::create_directory(disk_);
    put(file_, recording());
    server_.serve("/clip.mp4", ServedFile::of(recording()));
    const TarnResult probe = onDisk(64, "true");
    if (probe.exitCode != 0) GTEST_SKIP() << "this machine forbids a file system of one's own: " << probe.errors;
  }

  /// Runs lines of a shell script where $disk is a file system of so many KiB, $file a recording that can be repaired,
  /// $url one that can be saved, `fill` takes all room, and `save` fills a home.
  TarnResult onDisk(size_t kib, const std::string& lines) {
    const Path script = place_ / "script";
    std::ofstream(script) << "disk='" << disk_.native() << "'; file='" << file_.native() << "'; url='"
                          << server_.url("/clip.mp4") << "'\n"
                          << "fill() { cat /dev/zero >\"$disk/fill\" 2>/dev/null; }\n"
                          << "tarn() { '" << tarnCommand(place_.path(), {}).front() << "' \"$@\"; }\n"
                          << "save() { tarn --home \"$1\" save $url >&2; }\n"
                          << "mount -t tmpfs -o size=" << kib << "k tarn-test \"$disk\" || exit 99\n"
                          << lines << "\n";
    return ended(startOther({"/bin/sh", "-c", "exec unshare -Urm /bin/sh \"$1\"", "sh", script}));
  }

  const Path disk_ = place_ / "disk";
  const Path file_ = place_ / "clip.mp4";
};

TEST_F(FullDiskTest, EachCommandSaysSoWithTheCodeForLaterAndLeavesNothingHalf) {
  const std::string rows[] = {
      "fill; tarn $json --home $disk/home save $url",
      "fill; tarn $json repair $file -o $disk/out.mp4",
      "fill; tarn $json repair $file --output-dir $disk",
      "fill; tarn $json repair $file -o $file.out --report $disk/report",
      "tarn repair $file -o - >/dev/full",
      "fill; tarn $json inspect $file --plot $disk/plot.svg",
      "save $file.home$json; fill; tarn $json --home $file.home$json library export $disk",
      "save $disk/home; fill; tarn $json --home $disk/home library rename clip.mp4 other.mp4",
      "save $disk/home; fill; tarn $json --home $disk/home downloads --clear",
  };
  const std::string list =
      "\ncode=$?; find \"$disk\" -name home -prune -o -type f ! -name fill ! -name report "
      "-printf 'left: %P\\n' >&2; exit $code";
  for (const std::string& row : rows) {
    for (const bool isJSON : {false, true}) {
      if (isJSON && row.find("$json") == std::string::npos) continue;
      SCOPED_TRACE(row + (isJSON ? " --json" : ""));
      const TarnResult result = onDisk(1000, (isJSON ? "json=--json\n" : "json=\n") + row + list);
      EXPECT_EQ(result.exitCode, ExitCode::mayTryAgain) << result.output << result.errors;
      EXPECT_THAT(result.errors, HasSubstr("disk is full"));
      EXPECT_THAT(result.errors, Not(HasSubstr("left: ")));
      EXPECT_THAT(result.output, HasSubstr(isJSON ? "\"mayTryAgain\":true" : ""));
    }
  }
}

TEST_F(FullDiskTest, ASaveThatRunsOutOfRoomAnywhereMayBeTriedAgain) {
  int code = ExitCode::mayTryAgain;
  size_t room = 8;
  for (; room < 2000; room += room < 400 ? 24 : 200) {
    const TarnResult result = onDisk(room, "tarn --home $disk/home save $url");
    code = result.exitCode;
    if (code == ExitCode::done) break;
    EXPECT_EQ(code, ExitCode::mayTryAgain) << room << " KiB: " << result.errors;
  }
  EXPECT_EQ(code, ExitCode::done);
  EXPECT_GT(room, 100U) << "it had to fail before";
}

TEST_F(FullDiskTest, WhatDoesNotReachStandardOutputIsNoSuccess) {
  for (const char* command :
       {"inspect $file", "--json inspect $file", "inspect $kept $kept", "library", "--version", "repair --help",
        "repair $file -o $file.out", "--json repair $file -o $file.out", "save $url", "downloads"}) {
    const TarnResult result =
        onDisk(64, "export TARN_HOME=$file.home; kept=$file.home/Photos/Tarn/clip.mp4; tarn save $url >&2; tarn " +
                       std::string(command) + " >/dev/full");
    EXPECT_EQ(result.exitCode, ExitCode::mayTryAgain) << command << "\n" << result.errors;
    EXPECT_THAT(result.errors, HasSubstr("write to standard output: No space left on device")) << command;
  }
}

}  // namespace
}  // namespace tarn::test

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "app/CommandTest.h"
#include "app/Commands.h"
#include "app/RepairPlan.h"
#include "engine/KeptAttributes.h"
#include "engine/PrivateHome.h"
#include "platform/JSObject.h"
#include "platform/host/Descriptor.h"
#include "support/AnotherUser.h"
#include "support/FailureOf.h"

// The repair of many files, and of files in place.

namespace tarn::test {
namespace {

using testing::ElementsAre;

std::string_view broken() {
  return textOf(damagedMovie("avc3 with avcC"));
}

std::string_view healthy() {
  return textOf(damagedMovie("avc1"));
}

struct stat factsOf(const Path& path) {
  struct stat facts {};
  EXPECT_EQ(::lstat(path.c_str(), &facts), 0) << path;
  return facts;
}

/// All names below a directory, hidden ones too.
std::set<std::string> namesBelow(const Path& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (!entry.is_directory() || entry.path().filename().native().starts_with('.')) {
      names.insert(entry.path().lexically_relative(directory));
    }
  }
  return names;
}

class RepairBatchTest : public CommandTest {
 protected:
  TarnResult repair(int code, std::vector<std::string> arguments, const std::string& words = "") const {
    arguments.insert(arguments.begin(), "repair");
    return expect(code, arguments, words);
  }

  /// Runs a command until so many lines have come from it. It waits where nobody reads, so that it is killed at a place
  /// that no clock decides.
  void runAndKillAfterLine(int number, const std::vector<std::string>& arguments) const {
    const Path pipe = place_ / "pipe";
    fs::remove(pipe);
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::vector<std::string> command{"/bin/sh", "-c", "out=$0; exec \"$@\" > \"$out\"", pipe};
    std::ranges::copy(tarnCommand(home_, arguments), std::back_inserter(command));
    const Child tarn = startOther(command);
    const Descriptor output(::open(pipe.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_GT(::fcntl(*output, F_SETPIPE_SZ, 4096), 0);
    char read = 0;
    for (int lines = 0; lines < number; lines += read == '\n' ? 1 : 0) {
      ASSERT_EQ(::read(*output, &read, 1), 1) << "it ended at line " << lines;
    }
    tarn->signal(SIGKILL);
    EXPECT_EQ(tarn->wait(), killedBySIGKILL);
  }

  const Path in_ = place_ / "in";
  const Path out_ = place_ / "out";
};

TEST_F(RepairBatchTest, PlansWhichInputsBecomeWhichOutputs) {
  for (const char* name : {"a.mp4", "sub/a.MOV", "sub/b.m4a", "sub/notes.txt", "sub/b.m4a.orig", ".hidden.mp4",
                           ".trash/c.mp4", "done/old.mp4", "other/a.mp4"}) {
    put(in_ / name, "x");
  }
  fs::create_symlink(in_ / "a.mp4", in_ / "link.mp4");
  fs::create_directory_symlink(in_ / "other", in_ / "sub" / "linked");
  const auto planned = [&](const std::vector<Path>& inputs, const RepairTarget& target, bool isRecursive = false) {
    std::string text;
    const std::string failure = failureOf([&] {
      for (const auto& [input, output, isInPlace] : planRepairs(inputs, target, isRecursive).files) {
        text += input.lexically_relative(place_.path()).string() + (isInPlace ? "=" : ">") +
                output.lexically_relative(place_.path()).string() + " ";
      }
    });
    return failure.empty() ? text : failure;
  };
  EXPECT_EQ(planned({in_}, {.directory = in_ / "done"}, true),
            "in/a.mp4>in/done/a.mp4 in/other/a.mp4>in/done/other/a.mp4 in/sub/a.MOV>in/done/sub/a.MOV "
            "in/sub/b.m4a>in/done/sub/b.m4a ");
  EXPECT_EQ(planned({in_ / "sub", in_ / "a.mp4", in_ / "sub/../a.mp4", in_ / "sub/a.MOV"}, {}, true),
            "in/sub/a.MOV=in/sub/a.MOV in/sub/b.m4a=in/sub/b.m4a in/a.mp4=in/a.mp4 ");
  EXPECT_EQ(planned({in_ / "a.mp4", in_ / "sub/notes.txt"}, {.directory = in_, .suffix = ".new"}),
            "in/a.mp4>in/a.new.mp4 in/sub/notes.txt>in/notes.new.txt ");

  const Path one = in_ / "a.mp4", other = in_ / "other/a.mp4", mov = in_ / "sub/a.MOV";
  EXPECT_THAT(planned({one, other}, {.directory = out_}), HasSubstr("would both become"));
  EXPECT_THAT(planned({one}, {.directory = in_}), HasSubstr("would be written over"));
  EXPECT_THAT(planned({one, other}, {.directory = in_ / "sub/linked"}), HasSubstr("would both become"));
  EXPECT_THAT(planned({mov, one}, {.file = out_}), HasSubstr("Several files"));
  EXPECT_THAT(planned({in_}, {.directory = out_}), HasSubstr("--recursive"));
  EXPECT_THAT(planned({in_}, {.directory = in_}, true), HasSubstr("both read and written"));

  EXPECT_THAT(pathsInList("a b\r\n\n-c\nd", false), ElementsAre("a b", "-c", "d"));
  EXPECT_THAT(pathsInList(std::string_view("a\nb\0c", 5), true), ElementsAre("a\nb", "c"));
}

TEST_F(RepairBatchTest, ABatchThatIsKilledTwiceIsFinished) {
  constexpr int count = 200;
  std::map<std::string, std::string_view> files;
  for (int i = 0; i < count; ++i) {
    const std::string name = fmt::format("{}/{}/clip{}.mp4", i % 3, i % 7, i == 1 ? 0 : i);  // two of one name
    files[name] = i % 10 == 9  ? std::string_view("<html><title>Sign in</title></html>")
                  : i % 2 == 0 ? broken()
                               : healthy();
    put(in_ / name, files[name]);
    ::chmod((in_ / name).c_str(), i % 2 == 0 ? 0640 : 0604);
    const timespec times[]{{1'000'000 + i, 5}, {1'000'000 + i, 123'456'789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (in_ / name).c_str(), times, 0), 0);
  }
  ASSERT_EQ(files.size(), count);
  const Path alone = place_ / "alone.mp4", one = in_ / "0" / "0" / "clip0.mp4", report = place_ / "report.jsonl";
  repair(0, {one, "-o", alone});
  const std::string mended = contentOf(alone);
  ASSERT_NE(mended, broken());

  const auto command = words(fmt::format("repair -r {} --output-dir {} --skip-done --report {}", in_.string(),
                                         out_.string(), report.string()));
  runAndKillAfterLine(30, command);
  std::ofstream(report, std::ios::app) << "{\"input\":\"/half a li";
  runAndKillAfterLine(60, command);
  const TarnResult finished = expect(1, command, "200 of 200 files in");
  EXPECT_EQ(std::ranges::count(finished.errors, '\n'), 20) << finished.errors;

  std::map<std::string, std::multiset<std::string>> told;
  std::istringstream lines(contentOf(report));
  for (std::string line; std::getline(lines, line);) {
    const auto object = JSObject::parse(line);
    if (object) told[valueAt<std::string>(*object, "input", "")].insert(valueAt<std::string>(*object, "result", ""));
  }
  EXPECT_EQ(told.size(), count);
  std::set<std::string> expected;
  for (const auto& [name, content] : files) {
    const auto& results = told[(in_ / name).string()];
    if (content.starts_with('<')) {
      EXPECT_EQ(results.count("refused"), results.size()) << name;
      continue;
    }
    expected.insert(name);
    EXPECT_EQ(results.size(), 1U) << name;
    // A kill may have come between the file and its line.
    EXPECT_TRUE(results.contains(content == broken() ? "repaired" : "unchanged") || results.contains("skipped"))
        << name;
    EXPECT_TRUE(contentOf(out_ / name) == (content == broken() ? mended : content)) << name;
    EXPECT_EQ(fs::status(out_ / name).permissions(), fs::status(in_ / name).permissions()) << name;
    EXPECT_TRUE(fs::last_write_time(out_ / name) == fs::last_write_time(in_ / name)) << name;
  }
  EXPECT_EQ(namesBelow(out_), expected);
}

TEST_F(RepairBatchTest, TheReportSaysOnceThatTheResultOfAFailedFileIsThere) {
  const Path input = in_ / "a.mp4", report = place_ / "report.jsonl";
  put(input, healthy());
  put(out_ / "a.mp4", healthy());
  put(report, fmt::format("{{\"result\":\"failed\",\"input\":\"{}\"}}\n", input.string()));
  for (int run = 0; run < 2; ++run) {
    repair(0, {input, "--output-dir", out_, "--skip-done", "--report", report});
    const std::string lines = contentOf(report);
    EXPECT_EQ(std::ranges::count(lines, '\n'), 2) << lines;
    EXPECT_THAT(lines, HasSubstr("\"result\":\"skipped\""));
  }
}

TEST_F(RepairBatchTest, AResultIsDoneOnAFileSystemOfCoarserTimesToo) {
  const Path input = in_ / "a.mp4", output = out_ / "a.mp4";
  put(input, "x");
  put(output, "y");
  const timespec read{1'000'001, 123'456'789};
  const std::pair<timespec, bool> rows[] = {
      {read, true},           {{1'000'001, 123'456'700}, true},  {{1'000'001, 0}, true},
      {{1'000'000, 0}, true}, {{1'000'001, 123'456'689}, false}, {{1'000'000, 123'456'789}, false},
      {{999'999, 0}, false}};
  for (const auto& [written, isLateEnough] : rows) {
    for (const auto& [path, time] : {std::pair(input, read), std::pair(output, written)}) {
      const std::array<timespec, 2> times{time, time};
      ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
    }
    EXPECT_EQ(isDone({input, output}), isLateEnough) << written.tv_sec << " " << written.tv_nsec;
  }
}

// A sweep may come between the making and the locking of a directory.
TEST_F(RepairBatchTest, HomesThatAreMadeAtOnceAreNotTakenForAbandoned) {
  std::atomic<int> gone = 0;
  {
    std::array<std::jthread, 4> threads;
    for (std::jthread& thread : threads) {
      thread = std::jthread([&] {
        for (int made = 0; made < 500; ++made) {
          PrivateHome home(place_.path());
          home.make();
          PrivateHome::sweep(place_.path());
          if (!fs::is_directory(home.path())) ++gone;
        }
      });
    }
  }
  EXPECT_EQ(gone, 0);
  EXPECT_TRUE(fs::is_empty(place_.path()));
}

TEST_F(RepairBatchTest, InPlaceTheOldFileIsKeptAndAHealthyOneIsNotTouched) {
  const Path file = in_ / "a.mp4", original = in_ / "a.mp4.orig", good = in_ / "b.mp4";
  put(file, broken());
  put(good, healthy());
  ::chmod(file.c_str(), 0751);
  const bool isRoot = ::geteuid() == 0 && ::chown(file.c_str(), 1234, 5678) == 0;
  const struct stat before = factsOf(file), ofGood = factsOf(good);
  EXPECT_THAT(repair(0, {"--in-place", "--recursive", in_}).output, Not(HasSubstr("Warning")));
  EXPECT_EQ(contentOf(original), broken());
  EXPECT_EQ(factsOf(original).st_ino, before.st_ino);
  const struct stat after = factsOf(file);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  if (isRoot) {
    EXPECT_EQ(std::pair(after.st_uid, after.st_gid), std::pair(1234U, 5678U));
  }
  EXPECT_EQ(factsOf(good).st_ino, ofGood.st_ino);
  EXPECT_EQ(factsOf(good).st_ctim.tv_nsec, ofGood.st_ctim.tv_nsec);
  EXPECT_EQ(namesBelow(in_), (std::set<std::string>{"a.mp4", "a.mp4.orig", "b.mp4"}));

  // What is repaired stays. Another broken file of the name does not cost the one that is kept.
  const std::string mended = contentOf(file);
  repair(0, {"--in-place", file});
  EXPECT_EQ(contentOf(file), mended);
  fs::remove(file);
  put(file, broken());
  repair(4, {"--in-place", file}, "a.mp4.orig is there already");
  EXPECT_EQ(contentOf(file), broken());
  repair(0, {"--in-place", "--no-backup", file});
  EXPECT_EQ(contentOf(file), mended);
  const Path sound = in_ / "c.mp4";
  put(sound, textOf(damagedMovie("a gap in the sound")));
  put(in_ / "c.mp4.orig", "another file");
  const TarnResult early = repair(4, {"--verbose", "--in-place", sound}, "c.mp4.orig is there already");
  EXPECT_THAT(early.errors, Not(HasSubstr("Starting transcoding"))) << "it is refused before the work";
  fs::remove(in_ / "c.mp4.orig");
  repair(0, {"--verbose", "--in-place", sound}, "Starting transcoding");

  // A kill between the link and the new file.
  fs::remove(original);
  fs::remove(file);
  put(file, broken());
  fs::create_hard_link(file, original);
  repair(0, {"--in-place", "--skip-done", file});
  EXPECT_EQ(contentOf(file), mended);
  EXPECT_EQ(contentOf(original), broken());
}

TEST_F(RepairBatchTest, AFileThatItsOwnerMayOnlyReadKeepsItsAttributesToo) {
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(place_.path().c_str(), AnotherUser::nobody, static_cast<gid_t>(-1)), 0);
  }
  const AnotherUser user;
  const Path source = place_ / "source", target = place_ / "target";
  put(source, "x");
  put(target, "y");
  if (::setxattr(source.c_str(), "user.place", "here", 4, 0) != 0) GTEST_SKIP() << "no extended attributes here";
  ASSERT_EQ(::chmod(source.c_str(), 0440), 0);
  EXPECT_EQ(keepAttributes(source, target), std::vector<std::string>());
  std::string value(4, '\0');
  EXPECT_EQ(::getxattr(target.c_str(), "user.place", value.data(), value.size()), 4);
  EXPECT_EQ(value, "here");
  EXPECT_EQ(factsOf(target).st_mode & 07777, 0440U);
}

TEST_F(RepairBatchTest, InPlaceLinksAreRefused) {
  const Path file = in_ / "a.mp4", soft = in_ / "soft.mp4", hard = in_ / "hard.mp4";
  put(file, broken());
  fs::create_symlink(file, soft);
  repair(4, {"--in-place", soft});
  fs::create_hard_link(file, hard);
  for (const Path& name : {file, hard}) repair(4, {"--in-place", name});
  EXPECT_EQ(contentOf(file), broken());
  EXPECT_TRUE(fs::is_symlink(soft));
  EXPECT_EQ(namesBelow(in_), (std::set<std::string>{"a.mp4", "hard.mp4", "soft.mp4"}));
}

TEST_F(RepairBatchTest, NoReportIsAppendedToWhatIsNone) {
  const Path file = in_ / "a.mp4", forgotten = in_ / "b";
  put(file, broken());
  for (const std::string& content : {std::string(healthy()), "{" + std::string(17'000'000, ' ')}) {
    put(forgotten, content);
    repair(2, {"--in-place", "--report", forgotten, file}, "is no report of a repair");
    EXPECT_TRUE(contentOf(forgotten) == content);
    EXPECT_EQ(contentOf(file), broken());
  }
}

TEST_F(RepairBatchTest, StandardInputAndOutput) {
  const Path file = in_ / "a.mp4", result = place_ / "result.mp4", scratch = place_ / "scratch";
  put(file, textOf(damagedMovie("AC-3 sound")));
  fs::create_directory(scratch);
  repair(0, {file, "-o", result});
  const auto sh = [&](const std::string& script) {
    return ended(startOther({"/bin/sh", "-c", script, tarnCommand(home_, {}).front(), file, scratch}));
  };
  const TarnResult piped = sh("cat \"$1\" | \"$0\" repair - --scratch \"$2\" -o - | cat");
  EXPECT_TRUE(piped.output == contentOf(result)) << piped.errors;
  EXPECT_TRUE(fs::is_empty(scratch));
  const TarnResult none = sh("echo '<html>' | \"$0\" repair - -o -");
  EXPECT_EQ(none.exitCode, 4);
  EXPECT_EQ(none.output, "");
  const TarnResult listed =
      sh("{ head -c 17000000 /dev/zero; printf '%s\\0' \"$1\"; } | \"$0\" repair --files-from - -0 --in-place --json");
  EXPECT_EQ(listed.exitCode, 0) << listed.errors;
  EXPECT_TRUE(contentOf(file) == contentOf(result));
  EXPECT_THAT(listed.output, HasSubstr("\"ends\":{\"repaired\":1,"));
  EXPECT_EQ(sh("\"$0\" repair - --in-place").exitCode, 2);
  EXPECT_EQ(sh("\"$0\" repair - -o - --json").exitCode, 2);
}

}  // namespace
}  // namespace tarn::test

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <map>
#include <set>
#include <sstream>

#include "app/CommandTest.h"
#include "platform/JSObject.h"

// Several machines that repair into one folder. Each is a name space with a boot id of its own, and no lock shows one
// of them what the other does.

namespace tarn::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class ManyMachinesTest : public CommandTest {
 protected:
  ManyMachinesTest() {
    fs::create_directory(out_);
    for (int i = 0; i < 12; ++i) {
      const std::string name = fmt::format("{}clip{}.mp4", i % 2 == 0 ? "" : "below/", i);
      files_[name] = textOf(i % 3 == 0 ? damagedMovie("avc1") : recording());
      put(in_ / name, files_[name]);
    }
    const Path alone = place_ / "alone.mp4";
    EXPECT_EQ(CommandTest::run({"repair", in_ / "below/clip1.mp4", "-o", alone}).exitCode, 0);
    for (auto& [name, content] : files_) {
      if (content != textOf(damagedMovie("avc1"))) content = contentOf(alone);
    }
  }

  /// `tarn repair` of all files into `out_`, where no lock works. With `isHeld` it stops in the middle of the first
  /// file, with its result complete but for its name, until letGo().
  std::vector<std::string> repairCommand(const Path& home, bool isHeld) const {
    std::vector<std::string> command{"/usr/bin/env", std::string("LD_PRELOAD=") + USELESS_LOCKS};
    if (isHeld) command.push_back("FLUSH_GATE=" + gate_.string());
    const auto tarn =
        tarnCommand(home, {"repair", "-r", in_.string(), "--jobs", "1", "--skip-done", "--report", report_.string()});
    command.insert(command.end(), tarn.begin(), tarn.end());
    command.insert(command.end(), places_.begin(), places_.end());
    return command;
  }

  /// Runs the command on the machine of that number.
  Child startOn(int machine, const std::vector<std::string>& words) const {
    const Path bootId = place_ / fmt::format("boot-{}", machine);
    std::ofstream(bootId) << fmt::format("0b5ae5d1-5f9e-4c3b-8f0e-{:012x}\n", machine);
    std::vector<std::string> command{"/usr/bin/unshare", "--mount", "--uts"};
    if (::geteuid() != 0) command.insert(command.end(), {"--user", "--map-root-user"});
    const char* script =
        "hostname \"$0\" && mount --bind \"$1\" /proc/sys/kernel/random/boot_id && shift && exec \"$@\"";
    command.insert(command.end(), {"/bin/sh", "-c", script, fmt::format("machine-{}", machine), bootId.string()});
    command.insert(command.end(), words.begin(), words.end());
    return startOther(command);
  }

  /// Why there can be no machines here; empty if there can be.
  std::string hindrance() const {
    const auto trial = startOn(0, {"true"});
    return trial->wait() == 0 ? "" : "name spaces are forbidden here: " + trial->errors();
  }

  Child start(int machine, bool isHeld = false) const {
    if (isHeld) std::ofstream(gate_) << "closed";
    return startOn(machine, repairCommand(place_ / fmt::format("home-{}", machine), isHeld));
  }

  void run(int machine) {
    const auto tarn = start(machine);
    EXPECT_EQ(tarn->wait(), 0) << machine << tarn->errors();
  }

  bool waitUntilHeld() const {
    return eventually([&] { return fs::exists(gate_.string() + ".reached"); });
  }
  void letGo() {
    fs::remove(gate_);
    fs::remove(gate_.string() + ".reached");
  }

  /// The private homes of repairs below `out_`.
  std::set<Path> homes() const {
    std::set<Path> found;
    for (const auto& entry : fs::recursive_directory_iterator(out_)) {
      if (entry.is_directory() && entry.path().parent_path().filename().native().starts_with(".tarn-repair-")) {
        found.insert(entry.path());
      }
    }
    return found;
  }

  /// All results are there, each whole, and nothing else but what stands in private homes.
  void expectResults() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(out_)) {
      const std::string name = entry.path().lexically_relative(out_);
      if (entry.is_regular_file() && !name.starts_with('.') && name.find("/.") == std::string::npos) names.insert(name);
    }
    for (const auto& [name, content] : files_) {
      EXPECT_TRUE(contentOf(out_ / name) == content) << name;
      names.erase(name);
    }
    EXPECT_THAT(names, IsEmpty());
  }

  /// The last line about each input, but for `skipped`, tells what became of it.
  void expectReport() const {
    std::map<std::string, std::string> last;
    std::istringstream lines(contentOf(report_));
    for (std::string line; std::getline(lines, line);) {
      const auto object = JSObject::parse(line);
      ASSERT_TRUE(object) << line;
      const auto result = valueAt<std::string>(*object, "result", "");
      if (result != "skipped") last[valueAt<std::string>(*object, "input", "")] = result;
    }
    EXPECT_THAT(last, SizeIs(files_.size()));
    for (const auto& [input, result] : last) EXPECT_TRUE(result == "repaired" || result == "unchanged") << input;
  }

  /// As if nothing had been done in them for so long.
  static void makeOlder(const std::set<Path>& homes, std::chrono::hours age) {
    const auto then = fs::file_time_type::clock::now() - age;
    for (const Path& home : homes) {
      for (const auto& entry : fs::recursive_directory_iterator(home)) fs::last_write_time(entry.path(), then);
      fs::last_write_time(home, then);
    }
  }

  const Path in_ = place_ / "in";
  const Path out_ = place_ / "out";
  const Path report_ = place_ / "report.jsonl";
  const Path gate_ = place_ / "gate";
  std::vector<std::string> places_{"--output-dir", out_.string()};
  std::map<std::string, std::string> files_;  ///< what each result must be
};

TEST_F(ManyMachinesTest, NoneTakesTheWorkOfAnotherForAbandoned) {
  if (const std::string why = hindrance(); !why.empty()) GTEST_SKIP() << why;
  {
    const auto one = start(1), two = start(2);
    EXPECT_EQ(one->wait(), 0) << one->errors();
    EXPECT_EQ(two->wait(), 0) << two->errors();
    expectResults();
    expectReport();
    EXPECT_THAT(homes(), IsEmpty());
  }
  const auto forget = [&] {
    for (const auto& [name, content] : files_) fs::remove(out_ / name);
    fs::remove(report_);
  };
  {
    forget();
    const auto slow = start(1, true);
    ASSERT_TRUE(waitUntilHeld()) << slow->errors();
    run(2);
    expectResults();
    letGo();
    EXPECT_EQ(slow->wait(), 0) << slow->errors();
    expectResults();
    expectReport();
    EXPECT_THAT(homes(), IsEmpty());
  }
  const auto leaveHome = [&](int machine) {
    forget();
    const auto killed = start(machine, true);
    ASSERT_TRUE(waitUntilHeld()) << killed->errors();
    killed->signal(SIGKILL);
    EXPECT_EQ(killed->wait(), killedBySIGKILL);
    letGo();
    ASSERT_THAT(homes(), Not(IsEmpty()));
  };
  leaveHome(1);
  const auto left = homes();
  makeOlder(left, std::chrono::hours(24 * 6));
  run(2);
  EXPECT_EQ(homes(), left) << "it may still work on it";
  makeOlder(left, std::chrono::hours(24 * 8));
  run(2);
  EXPECT_THAT(homes(), IsEmpty()) << "it has been dead for a week";
  leaveHome(1);
  run(1);
  EXPECT_THAT(homes(), IsEmpty()) << "its own";
  expectResults();
}

TEST_F(ManyMachinesTest, InPlaceTheOriginalIsKeptWhoeverIsFirst) {
  if (const std::string why = hindrance(); !why.empty()) GTEST_SKIP() << why;
  const std::string name = "below/clip1.mp4", original = contentOf(in_ / name);
  places_ = {"--in-place"};
  const auto slow = start(1, true);
  ASSERT_TRUE(waitUntilHeld()) << slow->errors();
  run(2);
  letGo();
  EXPECT_EQ(slow->wait(), 0) << slow->errors();
  EXPECT_TRUE(contentOf(in_ / (name + ".orig")) == original);
  for (const auto& [file, content] : files_) EXPECT_TRUE(contentOf(in_ / file) == content) << file;
}

// A flush can take long, on a network folder that does not answer even for ever.
TEST_F(ManyMachinesTest, SIGTERMWaitsForNoFlush) {
  std::ofstream(gate_) << "closed";
  const auto tarn = startOther(repairCommand(home_, true));
  ASSERT_TRUE(waitUntilHeld()) << tarn->errors();
  tarn->signal(SIGTERM);
  EXPECT_EQ(tarn->wait(), 130) << tarn->errors();
  EXPECT_THAT(tarn->errors(), HasSubstr("Interrupted"));
  for (const auto& [name, content] : files_) EXPECT_FALSE(fs::exists(out_ / name)) << name;
  EXPECT_THAT(homes(), Not(IsEmpty()));
  letGo();
  const auto again = ended(startOther(repairCommand(home_, false)));
  EXPECT_EQ(again.exitCode, 0) << again.errors;
  EXPECT_THAT(homes(), IsEmpty());
  expectResults();
}

}  // namespace
}  // namespace tarn::test

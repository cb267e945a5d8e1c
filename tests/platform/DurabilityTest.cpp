#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "platform/Error.h"
#include "platform/UserDefaults.h"
#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/FaultyFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::UnorderedElementsAre;

const std::string oldValue(3000, 'o');
const std::string newValue(5000, 'n');
const Path directory = "/home/Defaults";

std::optional<std::string> textAt(FileManager& files, const Path& path) {
  if (!files.fileExists(path)) return std::nullopt;
  return std::string(textOf(readFile(files, path)));
}

void put(FileManager& files, const Path& path, std::string_view text) {
  files.open(path, OpenMode::creating)->write(bytesOf(text));
}

TEST(PowerCut, takesWhatWasNotMadeDurable) {
  for (const PowerCut cut : {PowerCut::losesNames, PowerCut::keepsNames}) {
    const bool names = cut == PowerCut::keepsNames;
    InMemoryFileManager files;
    files.createDirectory("/home/d");
    put(files, "/home/d/named", "bytes");  // a name without its bytes
    files.synchronizeDirectory("/home/d");
    const auto handle = files.open("/home/d/flushed", OpenMode::creating);
    handle->write(bytesOf("bytes"));
    handle->synchronize();  // bytes without their name
    handle->write(bytesOf(" and more"));
    files.removeItem("/home/d/named");
    files.moveItem("/home/d/flushed", "/home/d/moved");
    files.losePower(cut);

    EXPECT_EQ(textAt(files, "/home/d/named"), names ? std::nullopt : std::optional<std::string>(""));
    EXPECT_EQ(textAt(files, "/home/d/moved"), names ? std::optional<std::string>("bytes") : std::nullopt);
    EXPECT_FALSE(files.fileExists("/home/d/flushed"));
    EXPECT_THROW(handle->write(bytesOf("x")), PosixError);
    files.losePower(PowerCut::losesNames);
    EXPECT_EQ(files.fileExists("/home/d/moved"), names);  // what a restart finds is durable
  }
}

/// What a process leaves that stores the new value over the old one and meets a fault, and then perhaps a power cut.
struct Left {
  explicit Left(Fault fault, std::optional<PowerCut> cut = {}) {
    InMemoryFileManager memory;
    UserDefaults(memory, directory).setData("key", bytesOf(oldValue));
    FaultyFileManager files(memory);
    files.arm(std::move(fault));
    try {
      UserDefaults(files, directory).setData("key", bytesOf(newValue));
    } catch (const PosixError& error) {
      failed = error.code() == ENOSPC;
    }
    fired = files.fired();
    if (cut) {
      memory.losePower(*cut);
      removeAbandonedSiblings(memory, directory);
    }
    value = std::string(textOf(UserDefaults(memory, directory).data("key").value_or(Bytes())));
    count = memory.contentsOfDirectory(directory).size();
  }

  bool failed = false;
  bool fired = false;
  std::string value;
  size_t count = 0;  ///< of files
};

TEST(UserDefaults, keepTheOldValueOrTheNewOneWhateverFails) {
  for (const Fault::Effect effect : {Fault::Effect::none, Fault::Effect::half, Fault::Effect::whole}) {
    uint64_t call = 1;
    for (bool fired = true; fired; ++call) {
      SCOPED_TRACE(call);
      ASSERT_LT(call, 30u);
      const Left failure({.call = call, .errnum = ENOSPC, .effect = effect});
      fired = failure.fired;
      EXPECT_EQ(failure.failed, fired);
      const std::string& expected = failure.failed ? oldValue : newValue;
      EXPECT_THAT(failure.value, AnyOf(expected, effect == Fault::Effect::whole ? newValue : expected));
      EXPECT_EQ(failure.count, 1u);
      for (const PowerCut cut : {PowerCut::losesNames, PowerCut::keepsNames}) {
        const Left death({.call = call, .errnum = ENOSPC, .lasting = true, .effect = effect}, cut);
        EXPECT_THAT(death.value, AnyOf(newValue, death.failed ? oldValue : newValue));
        EXPECT_EQ(death.count, 1u);
      }
    }
    EXPECT_GT(call, 4u);  // opening, writing, closing and replacing have each had their turn
  }
}

TEST(UserDefaults, keepValuesOverAPowerCutFromTheFirstWriteOn) {
  for (const PowerCut cut : {PowerCut::losesNames, PowerCut::keepsNames}) {
    InMemoryFileManager files;
    UserDefaults defaults(files, "/home/deep/Defaults");
    EXPECT_FALSE(defaults.data("a"));
    defaults.removeObject("a");
    defaults.setInteger("n", std::numeric_limits<int64_t>::min());
    defaults.setData("a", bytesOf(std::string_view("\0\xFF", 2)));
    defaults.setData("gone", bytesOf("x"));
    defaults.removeObject("gone");
    files.losePower(cut);
    EXPECT_EQ(defaults.integer("n"), std::numeric_limits<int64_t>::min());
    EXPECT_EQ(textOf(*defaults.data("a")), std::string_view("\0\xFF", 2));
    EXPECT_FALSE(defaults.data("gone"));
  }
}

TEST(UserDefaults, giveWholeValuesToReadersBesideWriters) {
  const TempDirectory home;
  PosixFileManager files(home.path());
  UserDefaults first(files, home / "Defaults");
  UserDefaults second(files, home / "Defaults");  // with a lock of its own: only the files keep the two apart
  first.setData("key", bytesOf(oldValue));
  std::thread writer([&] {
    for (int i = 0; i < 50; ++i) first.setData("key", bytesOf(i % 2 ? oldValue : newValue));
  });
  for (int i = 0; i < 50; ++i) {
    second.setInteger("other", i);
    EXPECT_THAT(textOf(second.data("key").value_or(Bytes())), AnyOf(oldValue, newValue));
  }
  writer.join();
  EXPECT_THAT(files.contentsOfDirectory(home / "Defaults"), UnorderedElementsAre("key", "other"));
}

TEST(UserDefaults, tellAValueThatCannotBeReadFromNone) {
  InMemoryFileManager memory;
  FaultyFileManager files(memory);
  UserDefaults defaults(files, directory);
  for (const char* text : {"", "x", "3x", " 3", "99999999999999999999", "3\n"}) {
    defaults.setData("n", bytesOf(text));
    EXPECT_EQ(defaults.integer("n"), 0) << text;
  }
  defaults.setInteger("n", 3);
  files.arm({.lasting = true, .among = {FileOperation::read}});
  EXPECT_THROW(defaults.data("n"), PosixError);
  EXPECT_EQ(defaults.integer("n"), 0);
}

TEST(AbandonedSiblings, areTakenAndNothingElseIs) {
  InMemoryFileManager files;
  put(files, hiddenSibling("/home/clip.mp4"), "half");
  for (const char* name : {".tmp", ".x.tmp", "clip.mp4", "..tmp"}) put(files, Path("/home") / name, "kept");
  EXPECT_EQ(removeAbandonedSiblings(files, "/home"), 1u);
  EXPECT_THAT(files.contentsOfDirectory("/home"), UnorderedElementsAre(".tmp", ".x.tmp", "clip.mp4", "..tmp"));
  EXPECT_EQ(removeAbandonedSiblings(files, "/no"), 0u);
}

}  // namespace
}  // namespace tarn::test

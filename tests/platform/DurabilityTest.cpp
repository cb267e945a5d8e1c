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

namespace tarn {
namespace {

using test::Fault;
using test::FaultyFileManager;
using testing::AnyOf;
using testing::UnorderedElementsAre;

const std::string oldValue(3000, 'o');
const std::string newValue(5000, 'n');
constexpr PowerCut bothCuts[] = {PowerCut::losesNames, PowerCut::keepsNames};

std::optional<std::string> textAt(FileManager& files, const Path& path) {
  if (!files.fileExists(path)) return std::nullopt;
  return std::string(textOf(readFile(files, path)));
}

void put(FileManager& files, const Path& path, std::string_view text) {
  files.open(path, OpenMode::creating)->write(bytesOf(text));
}

TEST(PowerCut, takesWhatWasNotMadeDurable) {
  for (const PowerCut cut : bothCuts) {
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

TEST(PowerCut, findsAReplacedFileWhole) {
  for (const PowerCut cut : bothCuts) {
    InMemoryFileManager files;
    put(files, "/home/target", oldValue);
    put(files, "/home/source", newValue);
    files.replaceItem("/home/target", "/home/source");
    files.losePower(cut);
    EXPECT_EQ(textAt(files, "/home/target"), newValue);
    EXPECT_FALSE(files.fileExists("/home/source"));
  }
}

/// Sweeps a replacement of a value over every call that can fail, in every way. `begin` has the old value in place.
template <typename Begin, typename Replace, typename Read>
void sweep(Begin begin, Replace replace, Read read, const Path& directory) {
  for (const Fault::Effect effect : {Fault::Effect::none, Fault::Effect::half, Fault::Effect::whole}) {
    bool fired = true;
    uint64_t call = 1;
    for (; fired; ++call) {
      ASSERT_LT(call, 30u);
      InMemoryFileManager memory;
      begin(memory);
      FaultyFileManager files(memory);
      files.arm({.call = call, .errnum = ENOSPC, .effect = effect});
      bool failed = false;
      try {
        replace(files);
      } catch (const PosixError& error) {
        failed = error.code() == ENOSPC;
      }
      fired = files.fired();
      EXPECT_EQ(failed, fired);
      const auto value = read(memory);
      if (!failed) {
        EXPECT_EQ(value, newValue);
      } else if (effect != Fault::Effect::whole) {
        EXPECT_EQ(value, oldValue) << "call " << call;
      }
      EXPECT_THAT(value, AnyOf(oldValue, newValue)) << "call " << call;
      EXPECT_EQ(memory.contentsOfDirectory(directory).size(), 1u) << "call " << call;
    }
    EXPECT_GT(call, 4u);  // opening, writing, closing and replacing have each had their turn

    for (uint64_t death = 1; death < call; ++death) {
      for (const PowerCut cut : bothCuts) {
        InMemoryFileManager memory;
        begin(memory);
        FaultyFileManager files(memory);
        files.arm({.call = death, .lasting = true, .effect = effect});
        bool done = true;
        try {
          replace(files);
        } catch (const PosixError&) {
          done = false;
        }
        memory.losePower(cut);
        EXPECT_THAT(read(memory), AnyOf(newValue, done ? newValue : oldValue)) << "call " << death;
        removeAbandonedSiblings(memory, directory);
        EXPECT_EQ(memory.contentsOfDirectory(directory).size(), 1u) << "call " << death;
      }
    }
  }
}

TEST(AtomicWrites, leaveTheOldValueOrTheNewOne) {
  sweep([](FileManager& files) { writeFileAtomically(files, "/home/value", bytesOf(oldValue)); },
        [](FileManager& files) { writeFileAtomically(files, "/home/value", bytesOf(newValue)); },
        [](FileManager& files) { return textAt(files, "/home/value"); }, "/home");
}

TEST(UserDefaults, keepTheOldValueOrTheNewOne) {
  const auto store = [](const std::string& value) {
    return [&value](FileManager& files) { UserDefaults(files, "/home/Defaults").setData("key", bytesOf(value)); };
  };
  sweep(
      store(oldValue), store(newValue),
      [](FileManager& files) -> std::optional<std::string> {
        const auto value = UserDefaults(files, "/home/Defaults").data("key");
        return value ? std::optional(std::string(textOf(*value))) : std::nullopt;
      },
      "/home/Defaults");
}

TEST(UserDefaults, keepValuesOverAPowerCutFromTheFirstWriteOn) {
  for (const PowerCut cut : bothCuts) {
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
  const test::TempDirectory home;
  PosixFileManager host(home.path());
  InMemoryFileManager memory;
  for (FileManager* files : {static_cast<FileManager*>(&host), static_cast<FileManager*>(&memory)}) {
    const Path directory = home.path() / "Defaults";
    UserDefaults first(*files, directory);
    UserDefaults second(*files, directory);  // with a lock of its own: only the files keep the two apart
    first.setData("key", bytesOf(oldValue));
    std::thread writer([&] {
      for (int i = 0; i < 50; ++i) first.setData("key", bytesOf(i % 2 ? oldValue : newValue));
    });
    for (int i = 0; i < 50; ++i) {
      second.setInteger("other", i);
      EXPECT_THAT(textOf(second.data("key").value_or(Bytes())), AnyOf(oldValue, newValue));
    }
    writer.join();
    EXPECT_THAT(files->contentsOfDirectory(directory), UnorderedElementsAre("key", "other"));
  }
}

TEST(UserDefaults, takeDamagedNumbersForNone) {
  InMemoryFileManager files;
  UserDefaults defaults(files, "/home/Defaults");
  for (const char* text : {"", "x", "3x", " 3", "99999999999999999999", "3\n"}) {
    defaults.setData("n", bytesOf(text));
    EXPECT_EQ(defaults.integer("n"), 0) << text;
  }
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
}  // namespace tarn

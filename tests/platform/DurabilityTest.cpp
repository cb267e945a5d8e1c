#include <gmock/gmock.h>

#include "platform/Error.h"
#include "platform/UserDefaults.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/FaultyFileManager.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::UnorderedElementsAre;

const std::string oldValue(3000, 'o');
const std::string newValue(5000, 'n');
const Path directory = "/home/Defaults";

void put(FileManager& files, const Path& path, std::string_view text) {
  files.open(path, OpenMode::creating)->write(bytesOf(text));
}

TEST(PowerCut, takesWhatWasNotMadeDurable) {
  for (const PowerCut cut : {PowerCut::losesNames, PowerCut::keepsNames}) {
    InMemoryFileManager files;
    files.createDirectory("/home");
    put(files, "/home/named", "bytes");  // a name without its bytes
    files.synchronizeDirectory("/home");
    const auto handle = files.open("/home/flushed", OpenMode::creating);
    handle->write(bytesOf("bytes"));
    handle->synchronize();  // bytes without their name
    handle->write(bytesOf(" and more"));
    files.removeItem("/home/named");
    files.moveItem("/home/flushed", "/home/moved");
    files.losePower(cut);
    EXPECT_THROW(handle->write(bytesOf("x")), PosixError);
    files.losePower(PowerCut::losesNames);  // what a restart finds is durable

    const char* const left = cut == PowerCut::keepsNames ? "moved" : "named";
    EXPECT_THAT(files.contentsOfDirectory("/home"), UnorderedElementsAre(left));
    EXPECT_EQ(textOf(readFile(files, Path("/home") / left)), cut == PowerCut::keepsNames ? "bytes" : "");
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

TEST(UserDefaults, countATextThatIsNoNumberAsZero) {
  InMemoryFileManager files;
  UserDefaults defaults(files, directory);
  for (const char* text : {"", "3x", " 3", "99999999999999999999"}) {
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
}  // namespace tarn::test

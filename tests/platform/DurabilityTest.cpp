#include <gmock/gmock.h>

#include "platform/Error.h"
#include "platform/UserDefaults.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/FaultyFileManager.h"

namespace tarn::test {
namespace {

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

// A process stores the new value over the old one and meets a fault, which may be its end and a power cut.
TEST(UserDefaults, keepTheOldValueOrTheNewOneWhateverFails) {
  const std::optional<PowerCut> noCut;
  for (const Fault::Effect effect : {Fault::Effect::none, Fault::Effect::half, Fault::Effect::whole}) {
    for (const auto& cut : {noCut, std::optional(PowerCut::losesNames), std::optional(PowerCut::keepsNames)}) {
      uint64_t call = 1;
      for (bool fired = true; fired; ++call) {
        SCOPED_TRACE(call);
        InMemoryFileManager memory;
        UserDefaults(memory, directory).setData("key", bytesOf(oldValue));
        FaultyFileManager files(memory);
        files.arm({.call = call, .errnum = ENOSPC, .lasting = cut.has_value(), .effect = effect});
        bool failed = false;
        try {
          UserDefaults(files, directory).setData("key", bytesOf(newValue));
        } catch (const PosixError& error) {
          failed = error.code() == ENOSPC;
        }
        fired = files.fired();
        EXPECT_TRUE(cut || failed == fired);
        if (cut) memory.losePower(*cut);
        if (cut) removeAbandonedSiblings(memory, directory);
        const std::string found(textOf(UserDefaults(memory, directory).data("key").value_or(Bytes())));
        const bool mayBeNew = !failed || cut || effect == Fault::Effect::whole;
        EXPECT_TRUE((failed && found == oldValue) || (mayBeNew && found == newValue)) << found.substr(0, 10);
        EXPECT_EQ(memory.contentsOfDirectory(directory).size(), 1u);
      }
      EXPECT_GT(call, 4u);  // opening, writing, closing and replacing have each had their turn
    }
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

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Error.h"
#include "platform/UserDefaults.h"
#include "platform/memory/InMemoryFileManager.h"

namespace tarn::test {
namespace {

using testing::UnorderedElementsAre;

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

TEST(UserDefaults, takeWhatIsNoNumberForNone) {
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

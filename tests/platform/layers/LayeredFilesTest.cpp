#include <gmock/gmock.h>

#include <cerrno>
#include <functional>
#include <numeric>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/layers/LayeredFiles.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/LogCapture.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;
using TakenUp = LayeredFiles::TakenUp;

const Path documents = "/home/Documents", work = documents / "video.mp4", recipe = documents / "7.recipe",
           side = documents / "7.side", piece = documents / "new.m4a";

Bytes pattern(size_t size) {
  Bytes bytes(size);
  std::iota(bytes.begin(), bytes.end(), uint8_t{1});
  return bytes;
}

class LayeredFilesTest : public testing::Test {
 protected:
  LayeredFilesTest() {
    disk_.documentsDirectory(true);
    writeFileAtomically(disk_, work, pattern(100));
    begin();
  }

  TakenUp begin() {
    layers_.emplace(disk_, side);
    return layers_->keepRecipe(work, recipe);
  }

  /// The work file with `text` before it.
  void prepend(std::string_view text) {
    const auto old = layers_->open(work, OpenMode::reading);
    const auto made = layers_->open(piece, OpenMode::exclusive);
    made->write(bytesOf(text));
    old->copyRange(*made, 1000);
    layers_->replaceItem(work, piece);
  }
  Bytes prepended(std::string_view text) {
    Bytes bytes(bytesOf(text).begin(), bytesOf(text).end());
    const Bytes rest = pattern(100);
    bytes.insert(bytes.end(), rest.begin(), rest.end());
    return bytes;
  }

  void finish() {
    layers_->finish([] {});
  }

  const LogCapture log_;
  InMemoryFileManager disk_;
  std::optional<LayeredFiles> layers_;
};

TEST_F(LayeredFilesTest, AChangedFileIsMadeOnceAndAnUntouchedOneStaysWhatItIs) {
  const uint64_t inode = disk_.attributes(work)->inode;
  // A few bytes of a file that is otherwise untouched are changed in place.
  const auto tag = layers_->open(work, OpenMode::updating);
  tag->write(bytesOf("hvc1"));
  tag->synchronize();
  finish();
  EXPECT_EQ(disk_.attributes(work)->inode, inode);
  EXPECT_EQ(textOf(readFile(disk_, work)).substr(0, 4), "hvc1");

  prepend("head");
  EXPECT_EQ(disk_.attributes(work)->size, 100U);
  finish();
  EXPECT_NE(disk_.attributes(work)->inode, inode);
  EXPECT_EQ(textOf(readFile(disk_, work)).substr(0, 8), "headhvc1");
  EXPECT_THAT(disk_.contentsOfDirectory(documents), ElementsAre("video.mp4"));
  EXPECT_THAT(disk_.contentsOfDirectory(disk_.temporaryDirectory()), ElementsAre());
}

TEST_F(LayeredFilesTest, AStopWhileTheFileIsMadeKeepsTheRecipe) {
  prepend("head");
  EXPECT_THROW(layers_->finish([] { throw PosixError(EINTR, "stop"); }), PosixError);
  EXPECT_THAT(disk_.contentsOfDirectory(disk_.temporaryDirectory()), ElementsAre());
  EXPECT_EQ(begin(), TakenUp::recipe);
  finish();
  EXPECT_EQ(readFile(disk_, work), prepended("head"));
}

TEST_F(LayeredFilesTest, ARecipeThatDoesNotFitIsDropped) {
  struct Row {
    const char* what;
    std::function<void(FileManager&)> happens;
    TakenUp found;
  };
  const auto shorten = [](const Path& path) {
    return [path](FileManager& files) { files.open(path, OpenMode::updating)->truncate(3); };
  };
  const auto write = [](std::string_view text) {
    return [text](FileManager& files) { writeFileAtomically(files, recipe, bytesOf(text)); };
  };
  const Row rows[] = {
      {"the finished file took the place", [](FileManager& files) { writeFileAtomically(files, work, pattern(100)); },
       TakenUp::nothing},
      {"the base is shorter", shorten(work), TakenUp::nothing},
      {"the side file is short", shorten(side), TakenUp::damaged},
      {"the side file is gone", [](FileManager& files) { files.removeItem(side); }, TakenUp::damaged},
      {"the recipe is cut", shorten(recipe), TakenUp::damaged},
      {"no object", write("[1]"), TakenUp::damaged},
      {"a negative size", write(R"({"inode":1,"size":-5,"files":{}})"), TakenUp::damaged},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    writeFileAtomically(disk_, work, pattern(100));
    begin();
    prepend("head");
    row.happens(disk_);
    EXPECT_EQ(begin(), row.found);
    EXPECT_EQ(readFile(*layers_, work), readFile(disk_, work));
    EXPECT_THAT(disk_.contentsOfDirectory(documents), ElementsAre("video.mp4"));
  }
}

TEST_F(LayeredFilesTest, EveryPartOfARecipeLiesInItsFile) {
  const uint64_t inode = disk_.attributes(work)->inode;
  for (const char* part : {"[0,90,11]", "[0,18446744073709551615,2]", "[0,0,0]", "[3,0,1]", "[1,0,1]", "[0,1]",
                           "[0,-1,1]", "[2,0,9223372036854775807],[2,0,1]", "7"}) {
    SCOPED_TRACE(part);
    const std::string text =
        R"({"inode":)" + std::to_string(inode) + R"(,"size":100,"files":{"file:///home/x":[)" + part + "]}}";
    writeFileAtomically(disk_, recipe, bytesOf(text));
    EXPECT_EQ(begin(), TakenUp::damaged);
  }
}

TEST_F(LayeredFilesTest, TellsByItsBytesWhetherAFileChanged) {
  EXPECT_FALSE(layers_->isChanged(work));
  const auto old = layers_->open(work, OpenMode::reading);
  const auto copy = layers_->open(piece, OpenMode::exclusive);
  copy->write(old->read(10));
  old->copyRange(*copy, 1000);
  layers_->replaceItem(work, piece);
  EXPECT_TRUE(layers_->isReplaced(work));
  EXPECT_FALSE(layers_->isChanged(work));
  layers_->open(work, OpenMode::updating)->write(bytesOf("x"));
  EXPECT_TRUE(layers_->isChanged(work));
}

TEST_F(LayeredFilesTest, ChangesNothingOfTheBaseButTheSideFile) {
  EXPECT_THROW(layers_->removeItem(work), PosixError);
  EXPECT_THROW(layers_->moveItem(work, piece), PosixError);
  layers_->createDirectory("/home/new");
  layers_->open(work, OpenMode::creating)->write(bytesOf("x"));
  EXPECT_EQ(readFile(disk_, work), pattern(100));
  EXPECT_THAT(disk_.contentsOfDirectory("/home"), UnorderedElementsAre("Documents"));
  EXPECT_THAT(disk_.contentsOfDirectory(documents), UnorderedElementsAre("video.mp4", "7.side"));
}

}  // namespace
}  // namespace tarn::test

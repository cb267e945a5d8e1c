#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include <array>
#include <cerrno>
#include <functional>
#include <map>
#include <numeric>
#include <optional>
#include <random>
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
           sideFile = documents / "7.side", piece = documents / "new.m4a";

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
    layers_.emplace(disk_, sideFile);
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
      {"the side file is short", shorten(sideFile), TakenUp::damaged},
      {"the side file is gone", [](FileManager& files) { files.removeItem(sideFile); }, TakenUp::damaged},
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

const Path names[] = {work, "/home/Documents/a", "/home/Documents/b", "/home/Documents/c"};

/// Layered files over a disk beside plain files that are changed for real: both must answer every step in the same way.
/// A new process finds what the recipe held when it was stored last; `stored_` is that, for the plain files.
class Model {
 public:
  explicit Model(uint64_t seed) : random_(seed), keepsRecipe_(draw(4) > 0) {
    for (InMemoryFileManager* its : {&disk_, &plain_}) {
      its->documentsDirectory(true);
      writeFileAtomically(*its, work, movie_);
    }
    begin();
    // From here on the work file is layered: while nothing is, it is changed on the disk.
    for (const Side side : {layered, plain}) {
      files(side).copyItem(work, names[1]);
      files(side).replaceItem(work, names[1]);
    }
    noteStored();
  }

  /// What told the two apart; empty if nothing did.
  std::string run(size_t count) {
    for (step_ = 1; step_ <= count && difference_.empty(); ++step_) {
      step();
      if (step_ % 4 == 0) compareFiles();
    }
    if (difference_.empty()) lookAtDisk();
    return difference_;
  }

 private:
  enum Side { layered, plain };
  using Pair = std::array<std::unique_ptr<FileHandle>, 2>;

  FileManager& files(Side side) { return side == plain ? static_cast<FileManager&>(plain_) : *layers_; }
  uint64_t draw(uint64_t end) { return std::uniform_int_distribution<uint64_t>(0, end - 1)(random_); }
  Bytes bytes(uint64_t count) {
    Bytes result(count);
    for (uint8_t& byte : result) byte = static_cast<uint8_t>(1 + draw(255));
    return result;
  }

  void begin() {
    layers_.emplace(disk_, sideFile);
    if (keepsRecipe_) {
      layers_->keepRecipe(work, recipe);
    } else {
      layers_->layOver(work, work);
    }
  }

  void noteStored() {
    stored_.clear();
    for (const Path& name : names) {
      if (plain_.fileExists(name)) stored_[name] = readFile(plain_, name);
    }
  }

  void differ(const std::string& words) {
    if (difference_.empty()) difference_ = fmt::format("step {}: {}", step_, words);
  }

  /// Does the same to both and compares what comes out, a refusal included.
  void doBoth(const std::string& what, const std::function<std::string(Side)>& act) {
    std::string outcomes[2];
    for (const Side side : {layered, plain}) {
      try {
        outcomes[side] = act(side);
      } catch (const PosixError& error) {
        outcomes[side] = fmt::format("errno {}", error.code());
      }
    }
    if (outcomes[layered] != outcomes[plain]) differ(fmt::format("{}: {}", what, fmt::join(outcomes, ", but plain ")));
  }
  void onFiles(const std::string& what, const std::function<void(FileManager&)>& act) {
    doBoth(what, [&](Side side) { return act(files(side)), std::string(); });
  }
  void onHandle(const std::string& what, const std::function<std::string(FileHandle&)>& act) {
    if (handles_.empty()) return;
    const size_t which = draw(handles_.size());
    doBoth(what, [&](Side side) { return act(*handles_[which][side]); });
  }

  void step() {
    const uint64_t kind = draw(13), number = draw(400);
    const Path& name = names[1 + draw(3)];
    const Bytes put = bytes(1 + number % 40);
    if (kind < 2) open(names[draw(std::size(names))], static_cast<OpenMode>(draw(4)));
    if (kind == 2 || kind == 3) onHandle("write", [&](auto& file) { return file.write(put), std::string(); });
    if (kind == 4 || kind == 5) {
      onHandle("seek", [&](auto& file) {
        const uint64_t end = file.seekToEnd();
        file.seek(number);
        return fmt::format("{} of {}", file.offset(), end);
      });
    }
    if (kind == 6) onHandle("read", [](auto& file) { return fmt::format("{:02x}", fmt::join(file.read(60), "")); });
    if (kind == 7) onHandle("truncate", [&](auto& file) { return file.truncate(number), std::string(); });
    if (kind == 8 && handles_.size() > 1) copyRange(1 + number / 2);
    if (kind == 9 && plain_.fileExists(name)) {
      onFiles("replace", [&](auto& its) { its.replaceItem(work, name); });
      noteStored();
    }
    if (kind == 10) onFiles("remove", [&](auto& its) { its.removeItem(name); });
    if (kind == 11 && !handles_.empty()) handles_.pop_back();
    if (kind == 12 && number % 3 > 0) {
      onFiles("store", [&](auto& its) { its.synchronizeDirectory(work.parent_path()); });
      noteStored();
    }
    if (kind == 12 && number % 3 == 0 && keepsRecipe_) reload();
  }

  void open(const Path& name, OpenMode mode) {
    if (handles_.size() >= 4) return handles_.pop_back();
    Pair pair;
    doBoth("open", [&](Side side) { return pair[side] = files(side).open(name, mode), std::string(); });
    if (pair[layered] && pair[plain]) handles_.push_back(std::move(pair));
  }

  void copyRange(uint64_t count) {
    const size_t from = draw(handles_.size()), to = (from + 1) % handles_.size();
    doBoth("copy",
           [&](Side side) { return std::to_string(handles_[from][side]->copyRange(*handles_[to][side], count)); });
    // Where a copy that failed has left the positions is not promised.
    for (const size_t which : {from, to}) {
      for (const auto& handle : handles_[which]) handle->seek(0);
    }
  }

  /// The process ends, perhaps with the power, and another one takes up the recipe.
  void reload() {
    handles_.clear();
    layers_.reset();
    const uint64_t way = draw(3);
    if (way > 0) disk_.losePower(way == 1 ? PowerCut::losesNames : PowerCut::keepsNames);
    begin();
    for (const Path& name : names) removeIfExists(plain_, name);
    for (const auto& [name, content] : stored_) writeFileAtomically(plain_, name, content);
  }

  void compareFiles() {
    for (const Path& name : names) {
      const bool isThere = plain_.fileExists(name);
      if (layers_->fileExists(name) != isThere || (isThere && readFile(*layers_, name) != readFile(plain_, name))) {
        differ(name.native());
      }
    }
  }

  void lookAtDisk() {
    handles_.clear();
    std::vector<std::string> found = disk_.contentsOfDirectory(work.parent_path());
    std::erase_if(found, [](const std::string& name) { return name.starts_with("7."); });
    const bool isUntouched = found == std::vector{work.filename().native()} && readFile(disk_, work) == movie_;
    if (!isUntouched) differ(fmt::format("the disk was changed, it has {}", fmt::join(found, " ")));
  }

  std::mt19937_64 random_;
  const bool keepsRecipe_;
  const Bytes movie_ = bytes(1 + draw(300));
  InMemoryFileManager disk_, plain_;
  std::optional<LayeredFiles> layers_;
  std::vector<Pair> handles_;
  std::map<Path, Bytes> stored_;
  size_t step_ = 0;
  std::string difference_;
};

TEST(LayeredFilesModel, ReadsAndKeepsWhatPlainFilesWould) {
  for (uint64_t seed = 1; seed <= 2000; ++seed) {
    ASSERT_EQ(Model(seed).run(60), "") << "seed " << seed;
  }
}

}  // namespace
}  // namespace tarn::test

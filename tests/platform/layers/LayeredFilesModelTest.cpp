#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <random>

#include "platform/Error.h"
#include "platform/layers/LayeredFiles.h"
#include "platform/memory/InMemoryFileManager.h"

namespace tarn::test {
namespace {

const Path work = "/home/Documents/video.mp4", recipe = "/home/Documents/7.recipe", sideFile = "/home/Documents/7.side";
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

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <random>

#include "platform/Error.h"
#include "platform/layers/LayeredFiles.h"
#include "platform/memory/InMemoryFileManager.h"

namespace tarn::test {
namespace {

const Path work = "/home/Documents/video.mp4", recipe = "/home/Documents/7.recipe", side = "/home/Documents/7.side";
const Path names[] = {work, "/home/Documents/a", "/home/Documents/b", "/home/Documents/c"};

/// Layered files over a disk beside plain files that are changed for real: both must answer every step in the same way.
/// A new process finds what the recipe held when it was stored last; `stored_` is that, for the plain files.
class Model {
 public:
  explicit Model(uint64_t seed) : random_(seed), keepsRecipe_(draw(4) > 0) {
    for (InMemoryFileManager* files : {&disk_, &plain_}) files->documentsDirectory(true);
    for (InMemoryFileManager* files : {&disk_, &plain_}) writeFileAtomically(*files, work, movie_);
    begin();
    // From here on the work file is layered: while nothing is, it is changed on the disk.
    for (FileManager* files : {static_cast<FileManager*>(&*layers_), static_cast<FileManager*>(&plain_)}) {
      files->copyItem(work, names[1]);
      files->replaceItem(work, names[1]);
    }
    noteStored();
  }

  /// False after a step that told the two apart; steps() says which.
  bool run(size_t count) {
    for (size_t i = 1; i <= count && isSame_; ++i) {
      step();
      if (isSame_ && i % 4 == 0) compareFiles();
    }
    return isSame_ && isDiskUntouched();
  }

  std::string steps() const { return fmt::format("{}", fmt::join(steps_, "\n")); }

 private:
  struct Pair {
    std::unique_ptr<FileHandle> layered, plain;
  };

  uint64_t draw(uint64_t end) { return std::uniform_int_distribution<uint64_t>(0, end - 1)(random_); }
  const Path& anyName() { return names[draw(std::size(names))]; }
  Bytes bytes(uint64_t count) {
    Bytes result(count);
    for (uint8_t& byte : result) byte = static_cast<uint8_t>(1 + draw(255));
    return result;
  }

  void begin() {
    layers_.emplace(disk_, side);
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

  /// Does the same to both and compares what comes out, a refusal included.
  template <typename Work>
  void doBoth(std::string words, Work onLayered, Work onPlain) {
    const auto outcome = [](const Work& act) {
      try {
        return act();
      } catch (const PosixError& error) {
        return fmt::format("errno {}", error.code());
      }
    };
    const std::string layered = outcome(onLayered);
    const std::string plain = outcome(onPlain);
    steps_.push_back(fmt::format("{} -> {}", words, plain));
    if (layered == plain) return;
    isSame_ = false;
    steps_.push_back("but layered: " + layered);
  }
  void onFiles(const std::string& words, const std::function<std::string(FileManager&)>& act) {
    using Work = std::function<std::string()>;
    doBoth<Work>(
        words, [&] { return act(*layers_); }, [&] { return act(plain_); });
  }
  void onHandle(const std::string& words, const std::function<std::string(FileHandle&)>& act) {
    if (handles_.empty()) return;
    const size_t which = draw(handles_.size());
    using Work = std::function<std::string()>;
    doBoth<Work>(
        fmt::format("{}: {}", which, words), [&] { return act(*handles_[which].layered); },
        [&] { return act(*handles_[which].plain); });
  }

  void step() {
    switch (draw(13)) {
      case 0:
      case 1:
        return open();
      case 2:
      case 3: {
        const Bytes put = bytes(1 + draw(40));
        return onHandle(fmt::format("write {} bytes", put.size()), [&](FileHandle& file) {
          file.write(put);
          return std::string();
        });
      }
      case 4:
      case 5: {
        const uint64_t offset = draw(350);
        return onHandle(fmt::format("seek {}", offset), [&](FileHandle& file) {
          const uint64_t end = file.seekToEnd();
          file.seek(offset);
          return fmt::format("{} of {}", file.offset(), end);
        });
      }
      case 6:
        return onHandle("read", [](FileHandle& file) { return hex(file.read(60)); });
      case 7: {
        const uint64_t size = draw(400);
        return onHandle(fmt::format("truncate {}", size), [&](FileHandle& file) {
          file.truncate(size);
          return std::string();
        });
      }
      case 8:
        return copyRange();
      case 9:
        return replace();
      case 10:
        return remove();
      case 11:
        return close();
      default:
        return draw(3) == 0 ? reload() : store();
    }
  }

  static std::string hex(const Bytes& bytes) { return fmt::format("{:02x}", fmt::join(bytes, "")); }

  void open() {
    if (handles_.size() >= 4) return close();
    const Path& name = anyName();
    const auto mode = static_cast<OpenMode>(draw(4));
    Pair pair;
    using Work = std::function<std::string()>;
    doBoth<Work>(
        fmt::format("open {} {}", name.filename().native(), static_cast<int>(mode)),
        [&] { return pair.layered = layers_->open(name, mode), std::string(); },
        [&] { return pair.plain = plain_.open(name, mode), std::string(); });
    if (pair.layered && pair.plain) handles_.push_back(std::move(pair));
  }

  void copyRange() {
    if (handles_.size() < 2) return;
    const size_t from = draw(handles_.size());
    const size_t to = (from + 1) % handles_.size();
    const uint64_t count = 1 + draw(200);
    Pair& source = handles_[from];
    Pair& target = handles_[to];
    using Work = std::function<std::string()>;
    doBoth<Work>(
        fmt::format("copy {} bytes from {} to {}", count, from, to),
        [&] { return std::to_string(source.layered->copyRange(*target.layered, count)); },
        [&] { return std::to_string(source.plain->copyRange(*target.plain, count)); });
    // Where a copy that failed has left the positions is not promised.
    for (FileHandle* handle : {source.layered.get(), source.plain.get(), target.layered.get(), target.plain.get()}) {
      handle->seek(0);
    }
  }

  void replace() {
    const Path& source = names[1 + draw(3)];
    if (!plain_.fileExists(source)) return;
    onFiles("replace the work file by " + source.filename().native(), [&](FileManager& files) {
      files.replaceItem(work, source);
      return std::string();
    });
    noteStored();
  }

  void remove() {
    const Path& name = names[1 + draw(3)];
    onFiles("remove " + name.filename().native(), [&](FileManager& files) {
      files.removeItem(name);
      return std::string();
    });
  }

  void close() {
    if (handles_.empty()) return;
    steps_.push_back(fmt::format("close {}", handles_.size() - 1));
    handles_.pop_back();
  }

  void store() {
    onFiles("store", [&](FileManager& files) {
      files.synchronizeDirectory(work.parent_path());
      return std::string();
    });
    noteStored();
  }

  /// The process ends, perhaps with the power, and another one takes up the recipe.
  void reload() {
    if (!keepsRecipe_) return;
    handles_.clear();
    layers_.reset();
    const uint64_t way = draw(3);
    if (way > 0) disk_.losePower(way == 1 ? PowerCut::losesNames : PowerCut::keepsNames);
    steps_.push_back(fmt::format("reload {}", way));
    begin();
    for (const Path& name : names) removeIfExists(plain_, name);
    for (const auto& [name, content] : stored_) writeFileAtomically(plain_, name, content);
  }

  void compareFiles() {
    for (const Path& name : names) {
      const bool isThere = plain_.fileExists(name);
      if (layers_->fileExists(name) == isThere && (!isThere || readFile(*layers_, name) == readFile(plain_, name))) {
        continue;
      }
      isSame_ = false;
      steps_.push_back(fmt::format("now {} differs", name.filename().native()));
    }
  }

  bool isDiskUntouched() {
    handles_.clear();
    std::vector<std::string> found = disk_.contentsOfDirectory(work.parent_path());
    std::erase_if(found, [](const std::string& name) { return name.starts_with("7."); });
    if (found == std::vector<std::string>{work.filename().native()} && readFile(disk_, work) == movie_) return true;
    steps_.push_back(fmt::format("the disk was changed, it has {}", fmt::join(found, " ")));
    return false;
  }

  std::mt19937_64 random_;
  const bool keepsRecipe_;
  const Bytes movie_ = bytes(1 + draw(300));
  InMemoryFileManager disk_, plain_;
  std::optional<LayeredFiles> layers_;
  std::vector<Pair> handles_;
  std::map<Path, Bytes> stored_;
  std::vector<std::string> steps_;
  bool isSame_ = true;
};

TEST(LayeredFilesModel, ReadsAndKeepsWhatPlainFilesWould) {
  for (uint64_t seed = 1; seed <= 2000; ++seed) {
    Model model(seed);
    ASSERT_TRUE(model.run(60)) << "seed " << seed << ":\n" << model.steps();
  }
}

}  // namespace
}  // namespace tarn::test

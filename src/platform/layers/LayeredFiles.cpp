#include "platform/layers/LayeredFiles.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "platform/Log.h"
#include "platform/TempFile.h"
#include "platform/layers/detail/LayeredFile.h"
#include "platform/layers/detail/Recipe.h"

namespace tarn {
namespace {

constexpr uint64_t copyPiece = 10'485'760;  // bytes
constexpr uint64_t comparePiece = 1 << 20;  // bytes

ByteStorePointer openStore(FileManager& files, const Path& path, OpenMode mode) {
  return std::make_shared<ByteStore>(ByteStore{files.open(path, mode), path});
}

std::shared_ptr<LayeredFile> layFile(FileManager& files, const Path& original) {
  auto store = openStore(files, original, OpenMode::reading);
  const uint64_t size = store->handle->seekToEnd();
  return std::make_shared<LayeredFile>(std::move(store), size);
}

void writeZeros(FileHandle& target, uint64_t count) {
  const Bytes zeros(static_cast<size_t>(std::min(count, comparePiece)));
  for (; count > 0; count -= std::min(count, comparePiece)) {
    target.write(ByteView(zeros).first(static_cast<size_t>(std::min(count, comparePiece))));
  }
}

}  // namespace

class LayeredFiles::Handle : public FileHandle {
 public:
  Handle(LayeredFiles& files, FilePointer file, bool isWritable)
      : files_(files), file_(std::move(file)), isWritable_(isWritable) {}

  Bytes read(size_t count) override {
    std::lock_guard guard(files_.mutex_);
    const uint64_t size = file().size();
    Bytes bytes(static_cast<size_t>(std::min<uint64_t>(count, size - std::min(size, offset_))));
    bytes.resize(readUnderLock(bytes));
    return bytes;
  }

  size_t readInto(std::span<uint8_t> target) override {
    std::lock_guard guard(files_.mutex_);
    return readUnderLock(target);
  }

  void write(ByteView bytes) override {
    std::lock_guard guard(files_.mutex_);
    LayeredFile& target = writableFile(EBADF);
    if (bytes.empty()) return;
    const uint64_t place = files_.append(bytes);
    target.put(offset_, {bytes.size(), files_.side_, place});
    offset_ += bytes.size();
  }

  void seek(uint64_t offset) override {
    std::lock_guard guard(files_.mutex_);
    file();
    offset_ = offset;
  }

  uint64_t offset() const override {
    std::lock_guard guard(files_.mutex_);
    file();
    return offset_;
  }

  uint64_t seekToEnd() override {
    std::lock_guard guard(files_.mutex_);
    return offset_ = file().size();
  }

  uint64_t copyRange(FileHandle& target, uint64_t count) override {
    auto* const layered = dynamic_cast<Handle*>(&target);
    if (!layered || &layered->files_ != &files_) return copyByReading(*this, target, count);
    std::lock_guard guard(files_.mutex_);
    LayeredFile& copy = layered->writableFile(EBADF);
    uint64_t copied = 0;
    for (auto& part : file().parts(offset_, count)) {
      const uint64_t size = part.size;
      copy.put(layered->offset_, std::move(part));
      layered->offset_ += size;
      copied += size;
    }
    offset_ += copied;
    return copied;
  }

  void truncate(uint64_t size) override {
    std::lock_guard guard(files_.mutex_);
    writableFile(EINVAL).resize(size);
  }

  void synchronize() override {
    std::lock_guard guard(files_.mutex_);
    files_.commitIfAtWork(file());
  }

  void close() override {
    std::lock_guard guard(files_.mutex_);
    file_.reset();
  }

 private:
  LayeredFile& file() const {
    if (!file_) throw PosixError(EBADF, "use a closed file");
    return *file_;
  }

  LayeredFile& writableFile(int refusal) {
    LayeredFile& writable = file();
    if (!isWritable_) throw PosixError(refusal, "write to a file that is open for reading");
    return writable;
  }

  size_t readUnderLock(std::span<uint8_t> target) {
    const size_t count = file().read(offset_, target);
    offset_ += count;
    return count;
  }

  LayeredFiles& files_;
  FilePointer file_;
  const bool isWritable_;
  uint64_t offset_ = 0;
};

LayeredFiles::LayeredFiles(FileManager& base, Path side) : LayeredFiles(base, base, std::move(side)) {}

LayeredFiles::LayeredFiles(FileManager& base, FileManager& sideFiles, Path side)
    : ForwardingFileManager(base), sideFiles_(sideFiles), sidePath_(std::move(side)) {}

LayeredFiles::~LayeredFiles() {
  if (side_ && recipe_.empty()) removeIfExists(sideFiles_, sidePath_);
}

void LayeredFiles::layOver(const Path& path, const Path& original) {
  std::lock_guard guard(mutex_);
  files_[path] = layFile(base(), original);
  originals_[path] = original;
}

LayeredFiles::TakenUp LayeredFiles::keepRecipe(const Path& work, const Path& recipe) {
  std::lock_guard guard(mutex_);
  work_ = work;
  recipe_ = recipe;
  const auto facts = base().attributes(work);
  const TakenUp result = facts ? load(facts->inode, facts->size) : TakenUp::nothing;
  if (result == TakenUp::recipe) return result;
  if (base().fileExists(recipe_)) {
    // It must not come back once there is another side file.
    base().removeItem(recipe_);
    base().synchronizeDirectory(recipe_.parent_path());
  }
  forget();
  return result;
}

LayeredFiles::TakenUp LayeredFiles::load(uint64_t inode, uint64_t size) {
  if (!base().fileExists(recipe_)) return TakenUp::nothing;
  const auto recipe = decodeRecipe(readFile(base(), recipe_));
  if (!recipe) return TakenUp::damaged;
  // The times do not count: a new name or a changed tag moves them.
  if (recipe->inode != inode || recipe->baseSize != size) return TakenUp::nothing;
  const uint64_t sideSize = recipe->sideSize();
  if (sideSize > 0) {
    if (!base().fileExists(sidePath_)) return TakenUp::damaged;
    side_ = openStore(base(), sidePath_, OpenMode::updating);
    sideEnd_ = side_->handle->seekToEnd();
    if (sideEnd_ < sideSize) return TakenUp::damaged;
  }
  const ByteStorePointer stores[] = {openStore(base(), work_, OpenMode::reading), side_, nullptr};
  for (const auto& [path, parts] : recipe->files) {
    auto file = std::make_shared<LayeredFile>();
    for (const Recipe::Part& part : parts) {
      file->put(file->size(), {part.size, stores[static_cast<size_t>(part.source)], part.offset});
    }
    files_[path] = std::move(file);
  }
  return TakenUp::recipe;
}

/// Stores what `files` are made of: their new bytes first, then the recipe in one step.
void LayeredFiles::commit(const Files& files) {
  if (recipe_.empty()) return;
  const auto facts = base().attributes(work_);
  if (!facts) throw PosixError(ENOENT, "store a recipe for " + work_.native());
  Recipe recipe{.inode = facts->inode, .baseSize = facts->size, .files = {}};
  for (const auto& [path, file] : files) {
    if (file->isUntouched()) continue;
    auto& parts = recipe.files[path];
    for (const auto& [at, extent] : file->extents()) {
      using Source = Recipe::Part::Source;
      const Source source = !extent.store ? Source::zeros : extent.store == side_ ? Source::side : Source::base;
      if (source == Source::base && extent.store->path != work_) throw PosixError(ENOTSUP, extent.store->path.native());
      parts.push_back({source, extent.offset, extent.size});
    }
  }
  if (side_) side_->handle->synchronize();
  writeFileAtomically(base(), recipe_, encodeRecipe(recipe));
}

void LayeredFiles::commitIfAtWork(const LayeredFile& file) {
  const auto found = files_.find(work_);
  if (!recipe_.empty() && found != files_.end() && found->second.get() == &file) commit(files_);
}

bool LayeredFiles::isAnyTouched() const {
  return std::ranges::any_of(files_, [](const auto& entry) { return !entry.second->isUntouched(); });
}

void LayeredFiles::finish(const std::function<void()>& poll) {
  if (isChanged(work_)) {
    TempFile whole(base(), base().temporaryDirectory() / (makeUUID() + ".mp4"));
    materialise(work_, whole.path(), poll);
    base().replaceItem(work_, whole.path());
    whole.keep();
  }
  discard();
}

void LayeredFiles::discard() noexcept {
  std::lock_guard guard(mutex_);
  forget();
}

void LayeredFiles::forget() noexcept {
  files_.clear();
  originals_.clear();
  side_.reset();
  sideEnd_ = 0;
  if (!recipe_.empty() && base().fileExists(recipe_)) removeIfExists(base(), recipe_);
  if (sideFiles_.fileExists(sidePath_)) removeIfExists(sideFiles_, sidePath_);
}

bool LayeredFiles::isChanged(const Path& path) {
  std::lock_guard guard(mutex_);
  const auto found = files_.find(path);
  if (found == files_.end() || found->second->isUntouched()) return false;
  const LayeredFile& file = *found->second;
  const auto moved = originals_.find(path);
  const Path& original = moved == originals_.end() ? path : moved->second;
  const auto disk = base().open(original, OpenMode::reading);
  if (disk->seekToEnd() != file.size()) return true;
  for (const auto& [at, extent] : file.extents()) {
    if (extent.store && extent.store->path == original) {
      if (extent.offset != at) return true;
      continue;
    }
    disk->seek(at);
    for (uint64_t done = 0; done < extent.size;) {
      const Bytes there = disk->read(static_cast<size_t>(std::min(comparePiece, extent.size - done)));
      Bytes here(there.size());
      if (there.empty() || file.read(at + done, here) != here.size() || here != there) return true;
      done += there.size();
    }
  }
  return false;
}

bool LayeredFiles::isReplaced(const Path& path) {
  std::lock_guard guard(mutex_);
  const auto found = files_.find(path);
  return found != files_.end() && !found->second->isLaidOver();
}

std::set<Path> LayeredFiles::newNames() {
  std::lock_guard guard(mutex_);
  std::set<Path> names;
  for (const auto& [path, file] : files_) {
    if (!base().fileExists(path)) names.insert(path);
  }
  return names;
}

void LayeredFiles::materialise(const Path& path, const Path& target, const std::function<void()>& poll) {
  const auto start = std::chrono::steady_clock::now();
  std::vector<LayeredFile::Extent> parts;
  {
    std::lock_guard guard(mutex_);
    const FilePointer file = find(path);
    parts = file->parts(0, file->size());
  }
  const auto handle = base().open(target, OpenMode::exclusive);
  TempFile whole(base(), target);
  for (const LayeredFile::Extent& part : parts) {
    for (uint64_t done = 0; done < part.size;) {
      poll();
      const uint64_t piece = std::min(copyPiece, part.size - done);
      std::lock_guard guard(mutex_);
      if (!part.store) {
        writeZeros(*handle, piece);
      } else {
        part.store->handle->seek(part.offset + done);
        if (part.store->handle->copyRange(*handle, piece) < piece) {
          throw PosixError(EIO, part.store->path.native() + " became shorter while it was read: copy");
        }
      }
      done += piece;
    }
  }
  const uint64_t size = handle->offset();
  handle->close();
  whole.keep();
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  log("Wrote the finished file: {} bytes in {:.2f}s", size, time.count());
}

std::unique_ptr<FileHandle> LayeredFiles::open(const Path& path, OpenMode mode) {
  std::lock_guard guard(mutex_);
  if (mode == OpenMode::updating && !recipe_.empty() && path == work_ && !isAnyTouched()) {
    files_.erase(path);
    return base().open(path, mode);
  }
  const bool makesFile = mode == OpenMode::creating || isExclusive(mode);
  FilePointer file = makesFile ? make(path, isExclusive(mode)) : find(path);
  return std::make_unique<Handle>(*this, std::move(file), mode != OpenMode::reading);
}

LayeredFiles::FilePointer LayeredFiles::make(const Path& path, bool mustBeNew) {
  if (mustBeNew) requireFree(path);
  FilePointer& file = files_[path];
  if (!file) file = std::make_shared<LayeredFile>();
  file->resize(0);
  return file;
}

/// The file at a path; one of the base is laid over first.
LayeredFiles::FilePointer LayeredFiles::find(const Path& path) {
  const auto found = files_.find(path);
  if (found != files_.end()) return found->second;
  return files_[path] = layFile(base(), path);
}

void LayeredFiles::requireFree(const Path& path) {
  if (files_.contains(path) || base().fileExists(path)) throw PosixError(EEXIST, "make " + path.native());
}

/// A file that is here alone, so that its name can go.
LayeredFiles::Files::iterator LayeredFiles::requireOwn(const Path& path) {
  if (base().fileExists(path)) throw PosixError(EROFS, "remove " + path.native());
  const auto found = files_.find(path);
  if (found == files_.end()) throw PosixError(ENOENT, "remove " + path.native());
  return found;
}

/// Puts bytes at the end of the side file; returns where they begin there.
uint64_t LayeredFiles::append(ByteView bytes) {
  if (!side_) side_ = openStore(sideFiles_, sidePath_, OpenMode::creating);
  const uint64_t place = sideEnd_;
  side_->handle->seek(place);
  side_->handle->write(bytes);
  sideEnd_ += bytes.size();
  return place;
}

bool LayeredFiles::fileExists(const Path& path) {
  std::lock_guard guard(mutex_);
  return files_.contains(path) || base().fileExists(path);
}

std::optional<FileAttributes> LayeredFiles::attributes(const Path& path) {
  std::lock_guard guard(mutex_);
  auto facts = base().attributes(path);
  const auto found = files_.find(path);
  if (found == files_.end()) return facts;
  if (!facts) facts.emplace();
  facts->size = found->second->size();
  return facts;
}

std::vector<std::string> LayeredFiles::contentsOfDirectory(const Path& path) {
  std::lock_guard guard(mutex_);
  std::set<std::string> names;
  if (base().fileExists(path)) {
    for (std::string& name : base().contentsOfDirectory(path)) names.insert(std::move(name));
  }
  for (const auto& [file, layered] : files_) {
    if (file.parent_path() == path) names.insert(file.filename().native());
  }
  return {names.begin(), names.end()};
}

void LayeredFiles::createDirectory(const Path& /*path*/) {}

void LayeredFiles::moveItem(const Path& from, const Path& to) {
  std::lock_guard guard(mutex_);
  const auto found = requireOwn(from);
  requireFree(to);
  FilePointer file = std::move(found->second);
  files_.erase(found);
  files_[to] = std::move(file);
}

void LayeredFiles::copyItem(const Path& from, const Path& to) {
  std::lock_guard guard(mutex_);
  requireFree(to);
  const FilePointer source = find(from);
  auto copy = std::make_shared<LayeredFile>();
  for (auto& part : source->parts(0, source->size())) copy->put(copy->size(), std::move(part));
  files_[to] = std::move(copy);
}

void LayeredFiles::linkItem(const Path& from, const Path& to) {
  std::lock_guard guard(mutex_);
  requireFree(to);
  FilePointer file = find(from);
  files_[to] = std::move(file);
}

void LayeredFiles::removeItem(const Path& path) {
  std::lock_guard guard(mutex_);
  files_.erase(requireOwn(path));
}

void LayeredFiles::replaceItem(const Path& target, const Path& source) {
  std::lock_guard guard(mutex_);
  const auto found = requireOwn(source);
  if (target == source) return commit(files_);
  Files files = files_;
  files[target] = found->second;
  files.erase(source);
  commit(files);
  files_ = std::move(files);
}

void LayeredFiles::synchronizeDirectory(const Path& /*path*/) {
  std::lock_guard guard(mutex_);
  commit(files_);
}

std::optional<uint64_t> LayeredFiles::freeSpace(const Path& path) {
  if (&sideFiles_ != &base()) return std::nullopt;
  return base().freeSpace(path);
}

Path LayeredFiles::temporaryDirectory() {
  return sidePath_.parent_path() / "tmp";
}

}  // namespace tarn

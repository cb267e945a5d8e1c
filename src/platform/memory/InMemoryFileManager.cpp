#include "platform/memory/InMemoryFileManager.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <mutex>

#include "platform/Error.h"
#include "platform/TempFile.h"

namespace tarn {
namespace {

constexpr size_t maximumNameLength = 255;            // bytes, as on most file systems
constexpr uint64_t largestFile = uint64_t{1} << 30;  // bytes
constexpr int64_t tick = 1'000'000;                  // nanoseconds
constexpr int64_t firstTime = 1'600'000'000'000'000'000;

[[noreturn]] void fail(int errnum, const Path& path) {
  throw PosixError(errnum, path.native());
}

Path normal(const Path& path) {
  Path clean = path.lexically_normal();
  return clean.has_filename() ? clean : clean.parent_path();
}

bool isInside(const Path& path, const Path& directory) {
  return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first == directory.end();
}

}  // namespace

/// A file or a directory, with what it holds now and what a power cut leaves of it.
struct InMemoryFileManager::Node {
  using Entries = std::map<std::string, NodePointer>;

  uint64_t inode = 0;
  bool isDirectory = false;
  Bytes bytes;
  Bytes durableBytes;
  Entries entries;
  Entries durableEntries;
  int64_t changeTime = 0;
  int64_t modificationTime = 0;
};

/// The tree and its lock. Handles share it, so that they may outlive the file manager.
struct InMemoryFileManager::Disk {
  std::mutex mutex;
  NodePointer root;
  uint64_t lastInode = 0;
  int64_t time = firstTime;
  uint64_t powerCuts = 0;

  NodePointer makeNode(bool isDirectory) {
    auto node = std::make_shared<Node>();
    node->inode = ++lastInode;
    node->isDirectory = isDirectory;
    noteContent(*node);
    return node;
  }

  void noteChange(Node& node) { node.changeTime = time += tick; }
  void noteContent(Node& node) {
    noteChange(node);
    node.modificationTime = node.changeTime;
  }

  /// The node at a path, or the errno that says why there is none.
  struct Found {
    NodePointer node;
    int errnum = 0;
  };
  Found find(const Path& path) const {
    NodePointer node = root;
    if (path.native().find('\0') != std::string::npos) return {nullptr, EINVAL};
    for (const Path& part : normal(path).relative_path()) {
      if (!node->isDirectory) return {nullptr, ENOTDIR};
      if (part.native().size() > maximumNameLength) return {nullptr, ENAMETOOLONG};
      const auto entry = node->entries.find(part.native());
      if (entry == node->entries.end()) return {nullptr, ENOENT};
      node = entry->second;
    }
    return {node, 0};
  }

  NodePointer get(const Path& path) const {
    Found found = find(path);
    if (!found.node) fail(found.errnum, path);
    return found.node;
  }

  NodePointer getFile(const Path& path) const {
    NodePointer node = get(path);
    if (node->isDirectory) fail(EISDIR, path);
    return node;
  }

  NodePointer getDirectory(const Path& path) const {
    NodePointer node = get(path);
    if (!node->isDirectory) fail(ENOTDIR, path);
    return node;
  }

  NodePointer directoryOf(const Path& path) const { return getDirectory(normal(path).parent_path()); }

  /// The directory in which `path` can be made; throws when the name is taken or no name.
  NodePointer directoryForNew(const Path& path) const {
    const Found found = find(path);
    if (found.node) fail(EEXIST, path);
    if (found.errnum != ENOENT) fail(found.errnum, path);
    return directoryOf(path);
  }

  static std::string nameOf(const Path& path) { return normal(path).filename().native(); }

  void restore(Node& node, PowerCut cut) {
    node.bytes = node.durableBytes;
    if (cut == PowerCut::losesNames) {
      node.entries = node.durableEntries;
    } else {
      node.durableEntries = node.entries;
    }
    for (const auto& [name, child] : node.entries) restore(*child, cut);
  }
};

class InMemoryFileManager::Handle : public FileHandle {
 public:
  Handle(std::shared_ptr<Disk> disk, NodePointer node, Path path, bool writable)
      : disk_(std::move(disk)),
        node_(std::move(node)),
        path_(std::move(path)),
        writable_(writable),
        powerCuts_(disk_->powerCuts) {}

  Bytes read(size_t count) override {
    std::lock_guard guard(disk_->mutex);
    const ByteView ahead = bytesAhead(count);
    offset_ += ahead.size();
    return {ahead.begin(), ahead.end()};
  }

  size_t readInto(std::span<uint8_t> target) override {
    std::lock_guard guard(disk_->mutex);
    const ByteView ahead = bytesAhead(target.size());
    std::copy(ahead.begin(), ahead.end(), target.begin());
    offset_ += ahead.size();
    return ahead.size();
  }

  void write(ByteView bytes) override {
    std::lock_guard guard(disk_->mutex);
    Node& node = writableNode(EBADF);
    if (bytes.empty()) return;
    if (bytes.size() > largestFile || offset_ > largestFile - bytes.size()) fail(EFBIG, path_);
    node.bytes.resize(std::max<uint64_t>(node.bytes.size(), offset_ + bytes.size()));
    std::copy(bytes.begin(), bytes.end(), node.bytes.begin() + static_cast<std::ptrdiff_t>(offset_));
    offset_ += bytes.size();
    disk_->noteContent(node);
  }

  void seek(uint64_t offset) override {
    std::lock_guard guard(disk_->mutex);
    openNode();
    offset_ = offset;
  }

  uint64_t offset() const override {
    std::lock_guard guard(disk_->mutex);
    openNode();
    return offset_;
  }

  uint64_t seekToEnd() override {
    std::lock_guard guard(disk_->mutex);
    return offset_ = openNode().bytes.size();
  }

  uint64_t copyRange(FileHandle& target, uint64_t count) override { return copyByReading(*this, target, count); }

  void truncate(uint64_t size) override {
    std::lock_guard guard(disk_->mutex);
    Node& node = writableNode(EINVAL);
    if (size > largestFile) fail(EFBIG, path_);
    node.bytes.resize(size);
    disk_->noteContent(node);
  }

  void synchronize() override {
    std::lock_guard guard(disk_->mutex);
    Node& node = openNode();
    node.durableBytes = node.bytes;
  }

  void close() override {
    std::lock_guard guard(disk_->mutex);
    node_.reset();
  }

 private:
  Node& openNode() const {
    if (!node_) fail(EBADF, path_);
    if (powerCuts_ != disk_->powerCuts) fail(EIO, path_);
    return *node_;
  }

  Node& writableNode(int refusal) const {
    Node& node = openNode();
    if (!writable_) fail(refusal, path_);
    return node;
  }

  ByteView bytesAhead(uint64_t count) const {
    const ByteView all = openNode().bytes;
    return offset_ < all.size() ? all.subspan(offset_, std::min(count, all.size() - offset_)) : ByteView();
  }

  std::shared_ptr<Disk> disk_;
  NodePointer node_;  ///< null once closed
  Path path_;
  bool writable_;
  uint64_t powerCuts_;
  uint64_t offset_ = 0;
};

InMemoryFileManager::InMemoryFileManager(Path home) : home_(std::move(home)), disk_(std::make_shared<Disk>()) {
  disk_->root = disk_->makeNode(true);
  InMemoryFileManager::createDirectory(home_);
}

InMemoryFileManager::~InMemoryFileManager() = default;

std::unique_ptr<FileHandle> InMemoryFileManager::open(const Path& path, OpenMode mode) {
  std::lock_guard guard(disk_->mutex);
  const bool mayMake = mode == OpenMode::creating || isExclusive(mode);
  NodePointer node = disk_->find(path).node;
  if (!node && mayMake) {
    const NodePointer directory = disk_->directoryForNew(path);
    node = directory->entries[Disk::nameOf(path)] = disk_->makeNode(false);
  } else if (node && isExclusive(mode)) {
    fail(EEXIST, path);
  } else {
    node = disk_->getFile(path);
    if (mode == OpenMode::creating) {
      node->bytes.clear();
      disk_->noteContent(*node);
    }
  }
  return std::make_unique<Handle>(disk_, node, path, mode != OpenMode::reading);
}

bool InMemoryFileManager::fileExists(const Path& path) {
  std::lock_guard guard(disk_->mutex);
  return disk_->find(path).node != nullptr;
}

std::optional<FileAttributes> InMemoryFileManager::attributes(const Path& path) {
  std::lock_guard guard(disk_->mutex);
  const NodePointer node = disk_->find(path).node;
  if (!node) return std::nullopt;
  return FileAttributes{.device = 1,
                        .inode = node->inode,
                        .size = node->bytes.size(),
                        .changeTime = node->changeTime,
                        .modificationTime = node->modificationTime,
                        .isDirectory = node->isDirectory};
}

std::vector<std::string> InMemoryFileManager::contentsOfDirectory(const Path& path) {
  std::lock_guard guard(disk_->mutex);
  std::vector<std::string> names;
  for (const auto& [name, node] : disk_->getDirectory(path)->entries) names.push_back(name);
  return names;
}

void InMemoryFileManager::createDirectory(const Path& path) {
  std::lock_guard guard(disk_->mutex);
  Path reached = "/";
  for (const Path& part : normal(path).relative_path()) {
    const NodePointer above = disk_->getDirectory(reached);
    reached /= part;
    const Disk::Found found = disk_->find(reached);
    if (found.node && found.node->isDirectory) continue;
    const NodePointer directory = disk_->directoryForNew(reached);
    directory->entries[part.native()] = disk_->makeNode(true);
    directory->durableEntries = directory->entries;
  }
}

void InMemoryFileManager::moveItem(const Path& from, const Path& to) {
  std::lock_guard guard(disk_->mutex);
  const NodePointer node = disk_->get(from);
  const NodePointer target = disk_->directoryForNew(to);
  if (isInside(normal(to), normal(from))) fail(EINVAL, to);
  target->entries[Disk::nameOf(to)] = node;
  disk_->directoryOf(from)->entries.erase(Disk::nameOf(from));
  disk_->noteChange(*node);
}

void InMemoryFileManager::copyItem(const Path& from, const Path& to) {
  const auto source = open(from, OpenMode::reading);
  const auto copy = open(to, OpenMode::exclusive);
  TempFile made(*this, to);
  source->copyRange(*copy, std::numeric_limits<uint64_t>::max());
  copy->synchronize();
  made.keep();
}

void InMemoryFileManager::linkItem(const Path& from, const Path& to) {
  std::lock_guard guard(disk_->mutex);
  const NodePointer node = disk_->get(from);
  const NodePointer directory = disk_->directoryForNew(to);
  if (node->isDirectory) fail(EPERM, from);
  directory->entries[Disk::nameOf(to)] = node;
  disk_->noteChange(*node);
}

void InMemoryFileManager::removeItem(const Path& path) {
  std::lock_guard guard(disk_->mutex);
  const NodePointer node = disk_->get(path);
  disk_->directoryOf(path)->entries.erase(Disk::nameOf(path));
  disk_->noteChange(*node);
}

void InMemoryFileManager::replaceItem(const Path& target, const Path& source) {
  std::lock_guard guard(disk_->mutex);
  const NodePointer node = disk_->getFile(source);
  const NodePointer directory = disk_->directoryOf(target);
  const Disk::Found old = disk_->find(target);
  if (old.node && old.node->isDirectory) fail(EISDIR, target);
  if (!old.node && old.errnum != ENOENT) fail(old.errnum, target);
  node->durableBytes = node->bytes;
  if (old.node != node) {
    directory->entries[Disk::nameOf(target)] = node;
    disk_->directoryOf(source)->entries.erase(Disk::nameOf(source));
    disk_->noteChange(*node);
    if (old.node) disk_->noteChange(*old.node);
  }
  directory->durableEntries = directory->entries;
}

void InMemoryFileManager::synchronizeDirectory(const Path& path) {
  std::lock_guard guard(disk_->mutex);
  const NodePointer directory = disk_->getDirectory(path);
  directory->durableEntries = directory->entries;
}

std::optional<uint64_t> InMemoryFileManager::freeSpace(const Path& /*path*/) {
  return largestFile;
}

Path InMemoryFileManager::documentsDirectory(bool create) {
  Path path = home_ / "Documents";
  if (create) {
    createDirectory(path);
  } else if (!fileExists(path)) {
    fail(ENOENT, path);
  }
  return path;
}

Path InMemoryFileManager::temporaryDirectory() {
  Path path = home_ / "tmp";
  createDirectory(path);
  return path;
}

void InMemoryFileManager::losePower(PowerCut cut) {
  std::lock_guard guard(disk_->mutex);
  ++disk_->powerCuts;
  disk_->restore(*disk_->root, cut);
}

}  // namespace tarn

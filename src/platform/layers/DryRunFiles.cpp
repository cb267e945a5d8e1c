#include "platform/layers/DryRunFiles.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "platform/Error.h"

namespace tarn {

/// A file as a row of pieces without gaps, each in memory or a part of a file on disk.
class DryRunFile {
 public:
  struct Piece {
    uint64_t start = 0;  ///< in this file
    uint64_t size = 0;
    Bytes bytes = {};                       ///< of a piece in memory
    std::shared_ptr<FileHandle> disk = {};  ///< of a piece on disk
    uint64_t diskOffset = 0;

    uint64_t end() const { return start + size; }

    /// The part between two places in this file.
    Piece part(uint64_t from, uint64_t to) const {
      Piece result{.start = from, .size = to - from, .disk = disk, .diskOffset = diskOffset + (from - start)};
      if (!disk) {
        auto first = bytes.begin() + static_cast<ptrdiff_t>(from - start);
        result.bytes.assign(first, first + static_cast<ptrdiff_t>(to - from));
      }
      return result;
    }
  };
  using Pieces = std::vector<Piece>;

  explicit DryRunFile(uint64_t& bytesLeft) : bytesLeft_(bytesLeft) {}

  uint64_t size() const { return pieces_.empty() ? 0 : pieces_.back().end(); }
  const Pieces& pieces() const { return pieces_; }
  void clear() { pieces_.clear(); }

  size_t read(uint64_t at, std::span<uint8_t> target) const {
    size_t done = 0;
    for (auto piece = find(at); done < target.size() && piece != pieces_.end(); ++piece) {
      const uint64_t from = at + done - piece->start;
      auto part =
          target.subspan(done, static_cast<size_t>(std::min<uint64_t>(piece->size - from, target.size() - done)));
      if (piece->disk) {
        piece->disk->seek(piece->diskOffset + from);
        const size_t count = piece->disk->readInto(part);
        done += count;
        if (count < part.size()) break;  // the file on disk has become shorter
      } else {
        std::copy_n(piece->bytes.begin() + static_cast<ptrdiff_t>(from), part.size(), part.begin());
        done += part.size();
      }
    }
    return done;
  }

  /// The pieces of a part of the file, as far as it goes.
  Pieces parts(uint64_t at, uint64_t count) const {
    const uint64_t end = count < size() && at < size() - count ? at + count : size();
    Pieces result;
    for (auto piece = find(at); piece != pieces_.end() && piece->start < end; ++piece) {
      result.push_back(piece->part(std::max(at, piece->start), std::min(end, piece->end())));
    }
    return result;
  }

  /// Puts a piece at a place, over what is there or at the end.
  void put(uint64_t at, Piece piece) {
    if (at > size()) throw PosixError(EINVAL, "write behind the end");
    if (piece.size == 0) return;
    if (piece.bytes.size() > bytesLeft_) throw PosixError(ENOSPC, "a dry run");
    bytesLeft_ -= piece.bytes.size();
    piece.start = at;
    if (at == size() && !pieces_.empty() && extend(pieces_.back(), piece)) return;
    const auto first = split(at);
    const auto behind = split(std::min(piece.end(), size()));
    auto place = pieces_.erase(pieces_.begin() + first, pieces_.begin() + behind);
    pieces_.insert(place, std::move(piece));
  }

 private:
  /// The piece that holds a place; the end for one behind the file.
  Pieces::const_iterator find(uint64_t at) const { return std::ranges::upper_bound(pieces_, at, {}, &Piece::end); }

  /// Makes a piece begin at a place of the file or its end, and returns its index.
  ptrdiff_t split(uint64_t at) {
    const auto index = find(at) - pieces_.begin();
    auto place = pieces_.begin() + index;
    if (place == pieces_.end() || place->start == at) return index;
    Piece front = place->part(place->start, at);
    *place = place->part(at, place->end());
    pieces_.insert(place, std::move(front));
    return index + 1;
  }

  /// Joins a piece to the one ahead of it, where both are one.
  static bool extend(Piece& front, const Piece& next) {
    if (front.disk != next.disk) return false;
    if (front.disk && front.diskOffset + front.size != next.diskOffset) return false;
    front.bytes.insert(front.bytes.end(), next.bytes.begin(), next.bytes.end());
    front.size += next.size;
    return true;
  }

  Pieces pieces_;
  uint64_t& bytesLeft_;
};

namespace {

class DryRunHandle : public FileHandle {
 public:
  DryRunHandle(std::shared_ptr<DryRunFile> file, bool isWritable) : file_(std::move(file)), isWritable_(isWritable) {}

  Bytes read(size_t count) override {
    const uint64_t left = file().size() - std::min(file().size(), offset_);
    Bytes bytes(static_cast<size_t>(std::min<uint64_t>(count, left)));
    bytes.resize(readInto(bytes));
    return bytes;
  }

  size_t readInto(std::span<uint8_t> target) override {
    const size_t count = file().read(offset_, target);
    offset_ += count;
    return count;
  }

  void write(ByteView bytes) override {
    file(isWritable_).put(offset_, {.size = bytes.size(), .bytes = Bytes(bytes.begin(), bytes.end())});
    offset_ += bytes.size();
  }

  void seek(uint64_t offset) override {
    if (offset > uint64_t{std::numeric_limits<int64_t>::max()}) throw PosixError(EINVAL, "seek");
    offset_ = offset;
  }
  uint64_t offset() const override { return offset_; }
  uint64_t seekToEnd() override { return offset_ = file().size(); }

  uint64_t copyRange(FileHandle& target, uint64_t count) override {
    auto& to = dynamic_cast<DryRunHandle&>(target);
    uint64_t copied = 0;
    for (auto& part : file().parts(offset_, count)) {
      const uint64_t size = part.size;
      to.file(to.isWritable_).put(to.offset_, std::move(part));
      to.offset_ += size;
      copied += size;
    }
    offset_ += copied;
    return copied;
  }

  void truncate(uint64_t /*size*/) override { throw PosixError(ENOTSUP, "cut a file in a dry run"); }
  void synchronize() override { file(); }
  void close() override { file_.reset(); }

 private:
  DryRunFile& file(bool isAllowed = true) {
    if (!file_ || !isAllowed) throw PosixError(EBADF, "a dry run");
    return *file_;
  }

  std::shared_ptr<DryRunFile> file_;
  bool isWritable_;
  uint64_t offset_ = 0;
};

}  // namespace

DryRunFiles::DryRunFiles(FileManager& base) : ForwardingFileManager(base) {}
DryRunFiles::~DryRunFiles() = default;

std::unique_ptr<FileHandle> DryRunFiles::open(const Path& path, OpenMode mode) {
  const bool makesFile = mode == OpenMode::creating || mode == OpenMode::exclusive;
  auto found = written_.find(path);
  if (found == written_.end()) {
    auto file = std::make_shared<DryRunFile>(bytesLeft_);
    if (!makesFile) {
      std::shared_ptr<FileHandle> disk = base().open(path, OpenMode::reading);
      const uint64_t size = disk->seekToEnd();
      file->put(0, {.size = size, .disk = std::move(disk)});
    }
    found = written_.emplace(path, std::move(file)).first;
  } else if (mode == OpenMode::exclusive) {
    throw PosixError(EEXIST, "make " + path.string());
  } else if (makesFile) {
    found->second->clear();
  }
  return std::make_unique<DryRunHandle>(found->second, mode != OpenMode::reading);
}

bool DryRunFiles::fileExists(const Path& path) {
  return written_.contains(path) || base().fileExists(path);
}

std::optional<FileAttributes> DryRunFiles::attributes(const Path& path) {
  auto found = written_.find(path);
  auto facts = base().attributes(path);
  if (found == written_.end()) return facts;
  if (!facts) facts.emplace();
  facts->size = found->second->size();
  return facts;
}

void DryRunFiles::removeItem(const Path& path) {
  if (written_.erase(path) == 0) throw PosixError(EROFS, "remove " + path.string());
}

void DryRunFiles::replaceItem(const Path& target, const Path& source) {
  auto moved = written_.extract(source);
  if (moved.empty()) throw PosixError(ENOENT, "replace " + target.string());
  written_[target] = std::move(moved.mapped());
  replaced_.insert(target);
}

std::optional<uint64_t> DryRunFiles::freeSpace(const Path& /*path*/) {
  return std::nullopt;
}

Path DryRunFiles::temporaryDirectory() {
  return "/dry-run";
}

bool DryRunFiles::isChanged(const Path& path) {
  auto found = written_.find(path);
  if (found == written_.end()) return false;
  auto disk = base().open(path, OpenMode::reading);
  if (disk->seekToEnd() != found->second->size()) return true;
  disk->seek(0);
  for (const auto& piece : found->second->pieces()) {
    if (piece.disk) {
      if (piece.diskOffset != disk->offset()) return true;
      disk->seek(piece.diskOffset + piece.size);
    } else if (disk->read(piece.bytes.size()) != piece.bytes) {
      return true;
    }
  }
  return false;
}

}  // namespace tarn

#include "platform/host/PosixFileHandle.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "platform/Error.h"
#include "platform/host/PosixCalls.h"

namespace tarn {
namespace {

constexpr uint64_t maximumOffset = std::numeric_limits<off_t>::max();
constexpr uint64_t maximumCopyPiece = 10'485'760;  // bytes

int openFlags(OpenMode mode) {
  // O_NONBLOCK has no effect on a regular file; without it, opening a pipe would wait for its other end.
  constexpr int common = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  switch (mode) {
    case OpenMode::reading:
      return common | O_RDONLY;
    case OpenMode::updating:
      return common | O_RDWR;
    case OpenMode::creating:
      return common | O_RDWR | O_CREAT | O_TRUNC;
    case OpenMode::exclusive:
    case OpenMode::exclusivePrivate:
      return common | O_RDWR | O_CREAT | O_EXCL;
  }
  return common | O_RDONLY;
}

/// True if the bytes are at the same place of a block in both files. Only then can a file system share extents;
/// where they do not, the kernel copies in pieces of pages, and both the copy and its flush take longer than by
/// reading.
bool blocksMatch(uint64_t from, uint64_t to) {
  constexpr uint64_t block = 4096;
  return from % block == to % block;
}

}  // namespace

PosixFileHandle::PosixFileHandle(const Path& path, OpenMode mode) : name_(path.native()) {
  const char* const name = nativeName(path);
  const mode_t permissions = mode == OpenMode::exclusivePrivate ? 0600 : 0666;
  descriptor_ = repeatInterrupted([&] { return ::open(name, openFlags(mode), permissions); });
  if (descriptor_ < 0) fail(errno, "open");
  struct stat facts {};
  const int errnum = ::fstat(descriptor_, &facts) != 0 ? errno
                     : S_ISREG(facts.st_mode)          ? 0
                     : S_ISDIR(facts.st_mode)          ? EISDIR
                                                       : ESPIPE;
  if (errnum != 0) {
    ::close(descriptor_);
    fail(errnum, "open");
  }
}

PosixFileHandle::~PosixFileHandle() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

Bytes PosixFileHandle::read(size_t count) {
  const uint64_t end = size();
  Bytes bytes(std::min<uint64_t>(count, end > offset_ ? end - offset_ : 0));
  bytes.resize(readInto(bytes));
  return bytes;
}

size_t PosixFileHandle::readInto(std::span<uint8_t> target) {
  requireOpen();
  size_t done = 0;
  while (done < target.size() && offset_ < maximumOffset) {
    const size_t wanted = std::min<uint64_t>(target.size() - done, maximumOffset - offset_);
    const ssize_t got = repeatInterrupted(
        [&] { return ::pread(descriptor_, target.data() + done, wanted, static_cast<off_t>(offset_)); });
    if (got < 0) fail(errno, "read");
    if (got == 0) break;
    done += static_cast<size_t>(got);
    offset_ += static_cast<uint64_t>(got);
  }
  return done;
}

void PosixFileHandle::write(ByteView bytes) {
  requireOpen();
  while (!bytes.empty()) {
    if (offset_ > maximumOffset) fail(EFBIG, "write");
    const ssize_t written = repeatInterrupted(
        [&] { return ::pwrite(descriptor_, bytes.data(), bytes.size(), static_cast<off_t>(offset_)); });
    if (written < 0) fail(errno, "write");
    if (written == 0) fail(EIO, "write");
    bytes = bytes.subspan(static_cast<size_t>(written));
    offset_ += static_cast<uint64_t>(written);
  }
}

void PosixFileHandle::seek(uint64_t offset) {
  requireOpen();
  offset_ = offset;
}

uint64_t PosixFileHandle::offset() const {
  requireOpen();
  return offset_;
}

uint64_t PosixFileHandle::seekToEnd() {
  return offset_ = size();
}

uint64_t PosixFileHandle::copyRange(FileHandle& target, uint64_t count) {
  requireOpen();
  uint64_t copied = 0;
  auto* const posix = dynamic_cast<PosixFileHandle*>(&target);
  if (posix && blocksMatch(offset_, posix->offset_)) copied = copyInKernel(*posix, count);
  // At the end of the file this reads once and gets nothing; some file systems claim an end that is none.
  while (copied < count) {
    const uint64_t piece = copyByReading(*this, target, std::min<uint64_t>(count - copied, maximumCopyPiece));
    if (piece == 0) break;
    if (posix) posix->startWriting(piece);
    copied += piece;
  }
  return copied;
}

void PosixFileHandle::startWriting(uint64_t count) {
  // Whoever copies much flushes at the end; the disk may begin now. A refusal does no harm.
  const auto from = static_cast<off_t>(offset_ - count);
  ::sync_file_range(descriptor_, from, static_cast<off_t>(count), SYNC_FILE_RANGE_WRITE);
}

uint64_t PosixFileHandle::copyInKernel(PosixFileHandle& target, uint64_t count) {
  target.requireOpen();
  uint64_t copied = 0;
  while (copied < count && offset_ <= maximumOffset && target.offset_ <= maximumOffset) {
    auto from = static_cast<off_t>(offset_);
    auto to = static_cast<off_t>(target.offset_);
    const size_t piece = std::min(count - copied, maximumCopyPiece);
    const ssize_t moved =
        repeatInterrupted([&] { return ::copy_file_range(descriptor_, &from, target.descriptor_, &to, piece, 0); });
    if (moved < 0 && (errno == ENOSPC || errno == EDQUOT || errno == EIO || errno == EFBIG)) fail(errno, "copy");
    if (moved <= 0) break;  // any other refusal means "not between these two": reading and writing decides
    copied += static_cast<uint64_t>(moved);
    offset_ += static_cast<uint64_t>(moved);
    target.offset_ += static_cast<uint64_t>(moved);
    target.startWriting(static_cast<uint64_t>(moved));
  }
  return copied;
}

bool PosixFileHandle::cloneFrom(const PosixFileHandle& source) {
  requireOpen();
  source.requireOpen();
  return ::ioctl(descriptor_, FICLONE, source.descriptor_) == 0;
}

void PosixFileHandle::truncate(uint64_t size) {
  requireOpen();
  if (size > maximumOffset) fail(EFBIG, "truncate");
  if (repeatInterrupted([&] { return ::ftruncate(descriptor_, static_cast<off_t>(size)); }) != 0) {
    fail(errno, "truncate");
  }
}

void PosixFileHandle::synchronize() {
  requireOpen();
  if (repeatInterrupted([&] { return ::fsync(descriptor_); }) != 0) fail(errno, "flush");
}

void PosixFileHandle::close() {
  if (descriptor_ < 0) return;
  const int descriptor = std::exchange(descriptor_, -1);
  // Linux has closed the descriptor even when the call was interrupted; a second close could hit another file.
  if (::close(descriptor) != 0 && errno != EINTR) fail(errno, "close");
}

uint64_t PosixFileHandle::size() const {
  struct stat facts {};
  if (::fstat(descriptor_, &facts) != 0) fail(errno, "size");
  return static_cast<uint64_t>(facts.st_size);
}

void PosixFileHandle::requireOpen() const {
  if (descriptor_ < 0) fail(EBADF, "use");
}

void PosixFileHandle::fail(int errnum, const char* operation) const {
  throw PosixError(errnum, std::string(operation) + " " + name_);
}

}  // namespace tarn

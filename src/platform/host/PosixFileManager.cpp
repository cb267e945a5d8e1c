#include "platform/host/PosixFileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <system_error>
#include <thread>

#include "platform/Error.h"
#include "platform/TempFile.h"
#include "platform/host/PosixCalls.h"

namespace tarn {
namespace {

[[noreturn]] void fail(int errnum, const char* operation, const Path& path) {
  throw PosixError(errnum, std::string(operation) + " " + path.native());
}

std::optional<struct stat> factsAt(const Path& path) {
  struct stat facts {};
  if (path.native().find('\0') != std::string::npos || ::stat(path.c_str(), &facts) != 0) return std::nullopt;
  return facts;
}

int64_t nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

Path directoryOf(const Path& path) {
  return path.has_parent_path() ? path.parent_path() : Path(".");
}

/// rename(2) that refuses an existing target. Zero, or the errno.
int renameWithoutReplacing(const Path& from, const Path& to) {
  if (::renameat2(AT_FDCWD, nativeName(from), AT_FDCWD, nativeName(to), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without this flag: look first. The gap between the two is the best that can be had there.
  struct stat facts {};
  if (::lstat(to.c_str(), &facts) == 0) return EEXIST;
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

void makeDirectory(const Path& path) {
  if (::mkdir(nativeName(path), 0777) == 0) return;
  const int errnum = errno;
  const auto facts = factsAt(path);
  if (errnum != EEXIST || !facts || !S_ISDIR(facts->st_mode)) fail(errnum, "create directory", path);
}

void removeFile(const Path& path) {
  if (::unlink(nativeName(path)) != 0) fail(errno, "remove", path);
}

/// Keeps a large file that is about to be replaced open, and closes it on a thread of its own: its last close frees its
/// blocks, which takes longer than all else in a replacement, and nobody has to wait for it.
class ReplacedFile {
 public:
  explicit ReplacedFile(const Path& path) {
    const auto facts = factsAt(path);
    if (!facts || !S_ISREG(facts->st_mode) || facts->st_size < worthAThread) return;
    descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  }
  ~ReplacedFile() {
    if (descriptor_ < 0) return;
    try {
      std::thread([descriptor = descriptor_] { ::close(descriptor); }).detach();
    } catch (const std::system_error&) {
      ::close(descriptor_);
    }
  }
  ReplacedFile(const ReplacedFile&) = delete;
  ReplacedFile& operator=(const ReplacedFile&) = delete;

 private:
  static constexpr off_t worthAThread = 16 << 20;
  int descriptor_ = -1;
};

}  // namespace

std::unique_ptr<FileHandle> PosixFileManager::open(const Path& path, OpenMode mode) {
  return std::make_unique<PosixFileHandle>(path, mode);
}

bool PosixFileManager::fileExists(const Path& path) {
  return factsAt(path).has_value();
}

std::optional<FileAttributes> PosixFileManager::attributes(const Path& path) {
  const auto facts = factsAt(path);
  if (!facts) return std::nullopt;
  return FileAttributes{.device = facts->st_dev,
                        .inode = facts->st_ino,
                        .size = static_cast<uint64_t>(facts->st_size),
                        .changeTime = nanoseconds(facts->st_ctim),
                        .modificationTime = nanoseconds(facts->st_mtim),
                        .isDirectory = S_ISDIR(facts->st_mode)};
}

std::vector<std::string> PosixFileManager::contentsOfDirectory(const Path& path) {
  nativeName(path);
  std::error_code error;
  std::vector<std::string> names;
  std::filesystem::directory_iterator entry(path, error);
  while (!error && entry != std::filesystem::directory_iterator()) {
    names.push_back(entry->path().filename().native());
    entry.increment(error);
  }
  if (error) fail(error.value(), "list", path);
  return names;
}

void PosixFileManager::createDirectory(const Path& path) {
  if (const auto facts = factsAt(path); facts && S_ISDIR(facts->st_mode)) return;
  const Path above = directoryOf(path);
  if (above != path) createDirectory(above);
  if (!path.has_filename()) return;  // "a/b/" is done with "a/b"
  makeDirectory(path);
  synchronizeDirectory(above);
}

void PosixFileManager::moveItem(const Path& from, const Path& to) {
  const int errnum = renameWithoutReplacing(from, to);
  if (errnum == 0) return;
  const auto facts = factsAt(from);
  if (errnum != EXDEV || !facts || S_ISDIR(facts->st_mode)) fail(errnum, "move to", to);
  if (fileExists(to)) fail(EEXIST, "move to", to);  // before all the bytes are copied for nothing

  TempFile sibling(*this, hiddenSibling(to));
  copyItem(from, sibling.path());
  if (const int refused = renameWithoutReplacing(sibling.path(), to)) fail(refused, "move to", to);
  TempFile moved(*this, to);
  sibling.keep();
  synchronizeDirectory(directoryOf(to));  // the new name must be safe before the old one goes
  removeFile(from);
  moved.keep();
}

void PosixFileManager::copyItem(const Path& from, const Path& to) {
  PosixFileHandle source(from, OpenMode::reading);
  PosixFileHandle copy(to, OpenMode::exclusive);
  TempFile made(*this, to);
  if (!copy.cloneFrom(source)) source.copyRange(copy, std::numeric_limits<uint64_t>::max());
  copy.synchronize();
  copy.close();
  made.keep();
}

void PosixFileManager::linkItem(const Path& from, const Path& to) {
  if (::linkat(AT_FDCWD, nativeName(from), AT_FDCWD, nativeName(to), AT_SYMLINK_FOLLOW) != 0) fail(errno, "link", to);
}

void PosixFileManager::removeItem(const Path& path) {
  if (::unlink(nativeName(path)) == 0) return;
  if (errno != EISDIR) fail(errno, "remove", path);
  std::error_code error;
  std::filesystem::remove_all(path, error);
  if (error) fail(error.value(), "remove", path);
}

void PosixFileManager::replaceItem(const Path& target, const Path& source) {
  const ReplacedFile replaced(target);
  PosixFileHandle flushed(source, OpenMode::reading);
  flushed.synchronize();
  flushed.close();
  if (::rename(nativeName(source), nativeName(target)) == 0) {
    synchronizeDirectory(directoryOf(target));
    return;
  }
  if (errno != EXDEV) fail(errno, "replace", target);

  TempFile sibling(*this, hiddenSibling(target));
  copyItem(source, sibling.path());
  if (::rename(sibling.path().c_str(), target.c_str()) != 0) fail(errno, "replace", target);
  sibling.keep();
  synchronizeDirectory(directoryOf(target));
  removeIfExists(*this, source);  // the replacement is done; a source that stays behind is no failure of it
}

void PosixFileManager::synchronizeDirectory(const Path& path) {
  const char* const name = nativeName(path);
  const int descriptor = repeatInterrupted([&] { return ::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (descriptor < 0) fail(errno, "open directory", path);
  const int errnum = repeatInterrupted([&] { return ::fsync(descriptor); }) == 0 ? 0 : errno;
  ::close(descriptor);
  if (errnum != 0) fail(errnum, "flush directory", path);
}

std::optional<uint64_t> PosixFileManager::freeSpace(const Path& path) {
  // A path that does not exist yet will be on the file system of the first directory above it that does.
  Path existing = path;
  while (!fileExists(existing) && directoryOf(existing) != existing) existing = directoryOf(existing);
  struct statvfs facts {};
  if (!fileExists(existing) || ::statvfs(existing.c_str(), &facts) != 0) return std::nullopt;
  return uint64_t{facts.f_bavail} * uint64_t{facts.f_frsize};
}

Path PosixFileManager::documentsDirectory(bool create) {
  Path path = home_ / "Documents";
  if (create) {
    createDirectory(path);
  } else if (!fileExists(path)) {
    fail(ENOENT, "Documents directory", path);
  }
  return path;
}

Path PosixFileManager::temporaryDirectory() {
  Path path = home_ / "tmp";
  createDirectory(path);
  return path;
}

}  // namespace tarn

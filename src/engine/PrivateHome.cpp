#include "engine/PrivateHome.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/Error.h"

namespace tarn {
namespace {

constexpr const char* prefix = ".tarn-repair-";

/// The lock of a directory, if it can be had. Whoever holds it owns the directory; it goes with the process.
Descriptor lockDirectory(const Path& path, int flags) {
  Descriptor lock(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  if (lock.isOpen() && flock(*lock, LOCK_EX | flags) != 0) lock = Descriptor();
  return lock;
}

/// False for a directory that was removed between being made and being locked.
bool isStillNamed(const Descriptor& lock, const Path& path) {
  struct stat named {};
  struct stat opened {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(*lock, &opened) == 0 && named.st_ino == opened.st_ino;
}

}  // namespace

PrivateHome::PrivateHome(Path place) : place_(std::move(place)), path_(place_ / (prefix + makeUUID())) {}

PrivateHome::~PrivateHome() {
  if (!isMade_) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void PrivateHome::make() {
  const std::lock_guard guard(mutex_);
  if (isMade_) return;
  sweep(place_);
  for (;;) {
    if (::mkdir(path_.c_str(), 0700) != 0) throw PosixError(errno, "make a directory in " + place_.string());
    lock_ = lockDirectory(path_, 0);
    // Where the file system knows no locks, nobody can take the directory for abandoned either.
    if (!lock_.isOpen() || isStillNamed(lock_, path_)) break;
  }
  isMade_ = true;
}

void PrivateHome::sweep(const Path& place) {
  std::error_code ignored;
  std::filesystem::directory_iterator entry(place, ignored);
  for (; entry != std::filesystem::directory_iterator(); entry.increment(ignored)) {
    if (!entry->path().filename().native().starts_with(prefix)) continue;
    const Descriptor lock = lockDirectory(entry->path(), LOCK_NB);
    if (lock.isOpen()) std::filesystem::remove_all(entry->path(), ignored);
  }
}

}  // namespace tarn

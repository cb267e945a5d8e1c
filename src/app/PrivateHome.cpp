#include "app/PrivateHome.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/Error.h"

namespace tarn {
namespace {

constexpr const char* prefix = ".tarn-repair-";

/// The lock of a directory, or -1. Whoever holds it owns the directory; it goes with the process.
int lockDirectory(const Path& path, int flags) {
  const int lock = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
  if (lock < 0) return -1;
  if (flock(lock, LOCK_EX | flags) == 0) return lock;
  ::close(lock);
  return -1;
}

/// False for a directory that was removed between being made and being locked.
bool isStillNamed(int lock, const Path& path) {
  struct stat named {};
  struct stat opened {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(lock, &opened) == 0 && named.st_ino == opened.st_ino;
}

/// Removes the directories whose owners are dead.
void removeAbandoned(const Path& place) {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(place, ignored)) {
    if (!entry.path().filename().string().starts_with(prefix)) continue;
    const int lock = lockDirectory(entry.path(), LOCK_NB);
    if (lock < 0) continue;
    std::filesystem::remove_all(entry.path(), ignored);
    ::close(lock);
  }
}

}  // namespace

PrivateHome::PrivateHome(const Path& place) {
  removeAbandoned(place);
  for (;;) {
    path_ = place / (prefix + makeUUID());
    if (::mkdir(path_.c_str(), 0700) != 0) throw PosixError(errno, "make a directory in " + place.string());
    lock_ = lockDirectory(path_, 0);
    // Where the file system knows no locks, nobody can take the directory for abandoned either.
    if (lock_ < 0 || isStillNamed(lock_, path_)) return;
    ::close(lock_);
  }
}

PrivateHome::~PrivateHome() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
  if (lock_ >= 0) ::close(lock_);
}

}  // namespace tarn

#include "engine/PrivateHome.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "platform/Error.h"
#include "platform/host/PosixCalls.h"

namespace tarn {
namespace {

constexpr const char* prefix = ".tarn-repair-";

Descriptor openDirectory(const Path& path) {
  return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
}

/// Whoever has the lock owns the directory; it goes with the process. False if another has it, or the file system knows
/// no locks.
bool lock(const Descriptor& directory, int flags) {
  return repeatInterrupted([&] { return ::flock(*directory, LOCK_EX | flags); }) == 0;
}

/// False for a directory that was removed between being opened and being locked.
bool isStillNamed(const Descriptor& directory, const Path& path) {
  struct stat named {};
  struct stat opened {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(*directory, &opened) == 0 && named.st_ino == opened.st_ino;
}

}  // namespace

PrivateHome::PrivateHome(Path place) : place_(std::move(place)), path_(place_ / (prefix + makeUUID())) {}

PrivateHome::~PrivateHome() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void PrivateHome::make() {
  const std::lock_guard guard(mutex_);
  if (isMade_) return;
  sweep(place_);
  for (;;) {
    if (::mkdir(path_.c_str(), 0700) != 0) throw PosixError(errno, "make a directory in " + place_.string());
    lock_ = openDirectory(path_);
    if (!lock_.isOpen() && errno != ENOENT) throw PosixError(errno, "open " + path_.string());
    // Until it is locked, a sweep may take it for abandoned. Where the file system knows no locks, none can.
    if (lock_.isOpen() && (!lock(lock_, 0) || isStillNamed(lock_, path_))) break;
  }
  isMade_ = true;
}

void PrivateHome::sweep(const Path& place) {
  std::error_code ignored;
  std::filesystem::directory_iterator entry(place, ignored);
  for (; entry != std::filesystem::directory_iterator(); entry.increment(ignored)) {
    if (!entry->path().filename().native().starts_with(prefix)) continue;
    const Descriptor directory = openDirectory(entry->path());
    if (!directory.isOpen() || !lock(directory, LOCK_NB) || !isStillNamed(directory, entry->path())) continue;
    std::filesystem::remove_all(entry->path(), ignored);
  }
}

}  // namespace tarn

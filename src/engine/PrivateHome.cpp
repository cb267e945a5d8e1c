#include "engine/PrivateHome.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "platform/Error.h"
#include "platform/host/PosixCalls.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr auto longestSilence = std::chrono::seconds(std::chrono::days(7));
constexpr size_t idLength = 36;
constexpr int mostTries = 100;

/// Of the machine, until it is started anew. Where the system does not tell, each process counts as a machine.
const std::string& bootId() {
  static const std::string id = [] {
    std::string line;
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::getline(file, line);
    std::ranges::transform(line, line.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return isUUID(line) ? line : makeUUID();
  }();
  return id;
}

bool isHome(std::string_view name) {
  return name.size() == 2 * idLength + 1 && isUUID(name.substr(0, idLength)) && isUUID(name.substr(idLength + 1));
}

/// Each user has one, since nobody else can work in it.
Path directoryOfAll(const Path& place) {
  return place / fmt::format(".tarn-repair-{}", ::geteuid());
}

/// False for no directory, and in a place like /tmp for that of another user, who could exchange what is in it.
bool isSafe(const Path& all, const Path& place) {
  struct stat facts {};
  struct stat around {};
  if (::lstat(all.c_str(), &facts) != 0 || ::stat(place.c_str(), &around) != 0) return errno == ENOENT;
  const bool isForEverybody = (around.st_mode & S_ISVTX) != 0;
  return S_ISDIR(facts.st_mode) && (!isForEverybody || facts.st_uid == ::geteuid());
}

Descriptor openDirectory(const Path& path) {
  return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
}

/// Whoever has the lock owns the directory; it goes with the process. False if another has it (EWOULDBLOCK), or the
/// file system knows no locks.
bool lock(const Descriptor& directory, int flags) {
  return repeatInterrupted([&] { return ::flock(*directory, LOCK_EX | flags); }) == 0;
}

/// False for a directory that was removed between being opened and being locked.
bool isStillNamed(const Descriptor& directory, const Path& path) {
  struct stat named {};
  struct stat opened {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(*directory, &opened) == 0 && named.st_ino == opened.st_ino;
}

/// Nothing for what is not there.
std::optional<std::chrono::seconds> changeOf(const Path& path) {
  struct stat facts {};
  if (::lstat(path.c_str(), &facts) != 0) return std::nullopt;
  return std::chrono::seconds(facts.st_mtim.tv_sec);
}

/// Nothing in the home has changed for long. The time is that of whoever keeps the files, by whose clock they change;
/// if he does not tell it, the home counts as new. Where something goes away meanwhile, somebody is at work.
bool isSilent(const Path& home) {
  const Path all = home.parent_path();
  ::utimensat(AT_FDCWD, all.c_str(), nullptr, 0);
  const auto now = changeOf(all);
  const auto isOld = [&](const Path& path) {
    const auto change = changeOf(path);
    return now && change && *change < *now - longestSilence;
  };
  if (!isOld(home)) return false;
  std::error_code failure;
  for (fs::recursive_directory_iterator entry(home, failure); !failure && entry != fs::recursive_directory_iterator();
       entry.increment(failure)) {
    if (!isOld(entry->path())) return false;
  }
  return !failure;
}

void removeIfAbandoned(const Path& home) {
  const bool isOfThisMachine = home.filename().native().starts_with(bootId());
  if (!isOfThisMachine && !isSilent(home)) return;
  const Descriptor directory = openDirectory(home);
  if (!directory.isOpen()) return;
  const bool isLocked = lock(directory, LOCK_NB);
  if (!isLocked && (errno == EWOULDBLOCK || !isSilent(home))) return;
  if (!isStillNamed(directory, home)) return;
  std::error_code ignored;
  fs::remove_all(home, ignored);
}

/// Notes that this process sweeps a place; false if it has done so before. Once is enough; where many machines work,
/// each look costs all of them.
bool noteSweep(const Path& place) {
  static std::mutex mutex;
  static std::set<Path> places;
  const std::lock_guard guard(mutex);
  return places.insert(place).second;
}

}  // namespace

PrivateHome::PrivateHome(Path place)
    : place_(std::move(place)), all_(directoryOfAll(place_)), path_(all_ / (bootId() + "-" + makeUUID())) {}

PrivateHome::~PrivateHome() {
  if (!isBegun_) return;
  std::error_code ignored;
  fs::remove_all(path_, ignored);
  ::rmdir(all_.c_str());  // if it is empty
}

void PrivateHome::make() {
  const std::lock_guard guard(mutex_);
  if (isMade_) return;
  if (noteSweep(place_)) sweep(place_);
  isBegun_ = true;
  for (int tries = 0;; ++tries) {
    if (::mkdir(all_.c_str(), 0700) != 0) {
      if (errno != EEXIST) throw PosixError(errno, "make a directory in " + place_.string());
      if (!isSafe(all_, place_)) throw Error("Repair", -1, fmt::format("{} stands in the way", all_.string()));
    }
    if (::mkdir(path_.c_str(), 0700) != 0) {
      // A neighbour has removed the empty directory of all homes meanwhile.
      if ((errno == ENOENT || errno == ESTALE) && tries < mostTries) continue;
      throw PosixError(errno, "make a directory in " + all_.string());
    }
    lock_ = openDirectory(path_);
    if (!lock_.isOpen() && errno != ENOENT) throw PosixError(errno, "open " + path_.string());
    // Until it is locked, a sweep may take it for abandoned. Where the file system knows no locks, none can.
    if (lock_.isOpen() && (!lock(lock_, 0) || isStillNamed(lock_, path_))) break;
  }
  isMade_ = true;
}

void PrivateHome::sweep(const Path& place) {
  noteSweep(place);
  const Path all = directoryOfAll(place);
  if (!isSafe(all, place)) return;
  std::error_code failure;
  fs::directory_iterator entry(all, failure);
  if (failure) return;
  for (; entry != fs::directory_iterator(); entry.increment(failure)) {
    if (isHome(entry->path().filename().native())) removeIfAbandoned(entry->path());
  }
  ::rmdir(all.c_str());  // if it is empty
}

}  // namespace tarn

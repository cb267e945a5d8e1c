#include "engine/InPlace.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "engine/RepairRefusal.h"
#include "platform/host/PosixCalls.h"

namespace tarn {
namespace {

struct stat factsAt(const Path& path) {
  struct stat facts {};
  if (::lstat(nativeName(path), &facts) != 0) throw PosixError(errno, "look at " + path.string());
  return facts;
}

std::string nameIsTaken(const Path& original) {
  return fmt::format("{} is there already; move it away, or repair with `--no-backup`", original.filename().string());
}

}  // namespace

Path originalOf(const Path& file) {
  return file.string() + ".orig";
}

void requireReplaceable(const Path& file) {
  const struct stat facts = factsAt(file);
  if (S_ISLNK(facts.st_mode)) throw RepairRefusal("it is a symbolic link; name the file that it leads to");
  const nlink_t names = isOriginalItself(file) ? 2 : 1;
  // Another process that repairs it may have put a new file there in between.
  const bool isStillThere = factsAt(file).st_ino == facts.st_ino;
  if (S_ISREG(facts.st_mode) && facts.st_nlink > names && isStillThere) {
    throw RepairRefusal(
        fmt::format("it has {} names (hard links), and the others would keep the old file; write the "
                    "result elsewhere with `--output-dir`",
                    facts.st_nlink));
  }
}

void keepOriginal(const Path& file) {
  const Path original = originalOf(file);
  if (::link(nativeName(file), nativeName(original)) == 0) return;
  const int failure = errno;
  if (failure == EEXIST && isOriginalItself(file)) return;
  if (failure == EEXIST) throw RepairRefusal(nameIsTaken(original));
  if (failure == EPERM || failure == EOPNOTSUPP || failure == ENOSYS || failure == EMLINK) {
    throw RepairRefusal(
        fmt::format("no hard link to it can be made ({}), so {} cannot be kept; repair with "
                    "`--no-backup`, or write the result elsewhere with `--output-dir`",
                    std::generic_category().message(failure), original.filename().string()));
  }
  throw PosixError(failure, "link " + original.string());
}

std::optional<std::string> whyNotKept(const Path& file) {
  const Path original = originalOf(file);
  struct stat other {};
  if (::lstat(nativeName(original), &other) != 0 || isOriginalItself(file)) return std::nullopt;
  return nameIsTaken(original);
}

bool isOriginalItself(const Path& file) {
  struct stat other {};
  const struct stat own = factsAt(file);
  return ::lstat(nativeName(originalOf(file)), &other) == 0 && other.st_dev == own.st_dev && other.st_ino == own.st_ino;
}

}  // namespace tarn

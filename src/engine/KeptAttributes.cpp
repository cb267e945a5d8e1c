#include "engine/KeptAttributes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "platform/host/Descriptor.h"
#include "platform/host/PosixCalls.h"

namespace tarn {
namespace {

constexpr mode_t permissions = 0777;
constexpr mode_t allOfMode = 07777;

Descriptor opened(const Path& path) {
  Descriptor file(::open(nativeName(path), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file.isOpen()) throw PosixError(errno, "open " + path.string());
  return file;
}

struct stat factsOf(const Descriptor& file) {
  struct stat facts {};
  if (::fstat(*file, &facts) != 0) throw PosixError(errno, "look at a file");
  return facts;
}

std::string refused(const std::string& what) {
  return fmt::format("{} ({})", what, std::generic_category().message(errno));
}

/// The names of all of them, each with a zero after it; nothing if the file system knows none.
std::string extendedAttributes(const Descriptor& file) {
  std::string names;
  const ssize_t size = ::flistxattr(*file, nullptr, 0);
  if (size <= 0) return names;
  names.resize(static_cast<size_t>(size));
  const ssize_t got = ::flistxattr(*file, names.data(), names.size());
  names.resize(got < 0 ? 0 : static_cast<size_t>(got));
  return names;
}

bool copyExtendedAttribute(const Descriptor& source, const Descriptor& target, const char* name) {
  const ssize_t size = ::fgetxattr(*source, name, nullptr, 0);
  if (size < 0) return errno == ENODATA;
  std::string value(static_cast<size_t>(size), '\0');
  const ssize_t got = ::fgetxattr(*source, name, value.data(), value.size());
  return got >= 0 && ::fsetxattr(*target, name, value.data(), static_cast<size_t>(got), 0) == 0;
}

void keepOwner(const Descriptor& target, const struct stat& facts, std::vector<std::string>& missing) {
  const struct stat now = factsOf(target);
  if (now.st_uid != facts.st_uid && ::fchown(*target, facts.st_uid, facts.st_gid) != 0) {
    missing.push_back(refused("owner"));
  }
  if (factsOf(target).st_gid != facts.st_gid && ::fchown(*target, static_cast<uid_t>(-1), facts.st_gid) != 0) {
    missing.push_back(refused("group"));
  }
}

}  // namespace

std::vector<std::string> keepAttributes(const Path& source, const Path& target) {
  const Descriptor from = opened(source);
  const Descriptor to = opened(target);
  const struct stat facts = factsOf(from);
  std::vector<std::string> missing;
  keepOwner(to, facts, missing);
  const bool isOwned = missing.empty();
  // Before the mode: a file that may not be written takes none.
  const std::string names = extendedAttributes(from);
  for (size_t at = 0; at < names.size(); at += std::string_view(names.c_str() + at).size() + 1) {
    const char* name = names.c_str() + at;
    if (!copyExtendedAttribute(from, to, name)) missing.push_back(refused(name));
  }
  // Without its owner the file must not run as somebody else.
  if (::fchmod(*to, facts.st_mode & (isOwned ? allOfMode : permissions)) != 0) {
    missing.push_back(refused("mode"));
  }
  const std::array<timespec, 2> times{facts.st_atim, facts.st_mtim};
  if (::futimens(*to, times.data()) != 0) missing.push_back(refused("time of the last change"));
  return missing;
}

}  // namespace tarn

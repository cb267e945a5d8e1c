#include "engine/Home.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "platform/host/PosixFileManager.h"

namespace tarn {
namespace {

constexpr uint64_t largestLog = 16 << 20;

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets the environment
  if (!value || !*value) return std::nullopt;
  return value;
}

std::string timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%FT%T", &parts);
  return fmt::format("{}.{:03}Z", text, now.tv_nsec / 1'000'000);
}

/// A place of the user's for `tarn`, by the XDG Base Directory Specification.
std::optional<Path> userPlace(const char* variable, const char* otherwise) {
  if (auto place = environment(variable)) return Path(*place) / "tarn";
  if (auto user = environment("HOME")) return Path(*user) / otherwise / "tarn";
  return std::nullopt;
}

std::optional<Path> defaultHome() {
  return userPlace("XDG_DATA_HOME", ".local/share");
}

}  // namespace

bool isDefaultHome(const Path& home) {
  const auto usual = defaultHome();
  return usual && (home / "").lexically_normal() == (*usual / "").lexically_normal();
}

Path homeDirectory(const std::optional<std::string>& given) {
  if (given) return absolutePath(*given).lexically_normal();
  if (auto home = environment("TARN_HOME")) return absolutePath(*home).lexically_normal();
  if (auto home = defaultHome()) return *home;
  throw Error("Home", -1, "No home directory is known: use --home DIR");
}

Path logFileOf(const Path& home) {
  const auto state = userPlace("XDG_STATE_HOME", ".local/state");
  return isDefaultHome(home) && state && state->is_absolute() ? *state / "tarn.log" : home / "log/tarn.log";
}

namespace {

/// A new home is for its owner alone, and so is what is made in a home that is. One that was there keeps its mode.
void makeHome(const Path& home) {
  // A home that is given as "dir/" has no last name.
  const Path place = home.has_filename() ? home : home.parent_path();
  PosixFileManager(home).createDirectory(place.parent_path());
  if (::mkdir(place.c_str(), 0700) != 0 && errno != EEXIST) throw PosixError(errno, home.string());
  struct stat facts {};
  if (::stat(home.c_str(), &facts) == 0 && (facts.st_mode & 077) == 0) ::umask(077);
}

LogSink fileSink(const Path& path) {
  PosixFileManager(path.parent_path()).createDirectory(path.parent_path());
  std::error_code missing;
  if (std::filesystem::file_size(path, missing) > largestLog && !missing) {
    std::filesystem::rename(path, path.string() + ".1", missing);
  }
  const auto file = std::make_shared<Descriptor>(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (!file->isOpen() || ::fchmod(**file, 0600) != 0) throw PosixError(errno, path.string());
  return [file](std::string_view line) {
    const std::string entry = fmt::format("{} {}\n", timestamp(), line);
    // A full disk costs lines of the log and stops no work.
    [[maybe_unused]] const ssize_t written = ::write(**file, entry.data(), entry.size());
  };
}

}  // namespace

HomeInUse::HomeInUse(const Path& home) : Error("Home", EWOULDBLOCK, "Another tarn works in " + home.string()) {}

HomeLock::HomeLock(const Path& home) {
  makeHome(home);
  const Path file = home / ".lock";
  lock_ = Descriptor(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (lock_.isOpen() && flock(*lock_, LOCK_EX | LOCK_NB) == 0) return;
  if (!lock_.isOpen() || errno != EWOULDBLOCK) throw PosixError(errno, file.string());
  throw HomeInUse(home);
}

LogFile::LogFile(const Path& file) : LogDetour(fileSink(file)), path_(file) {}

std::unique_ptr<LogFile> LogFile::ofHome(const Path& home) {
  try {
    return std::make_unique<LogFile>(logFileOf(home));
  } catch (const PosixError&) {
    return std::make_unique<LogFile>(home / "log/tarn.log");
  }
}

}  // namespace tarn

#include "platform/host/Desktop.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <thread>
#include <utility>

namespace tarn {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds patience{3000};
constexpr milliseconds pause{20};  // between two looks at the opener

bool hasDesktop() {
  const auto isSet = [](const char* name) {
    const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody sets the environment
    return value && *value;
  };
  return isSet("DISPLAY") || isSet("WAYLAND_DISPLAY");
}

/// Nothing without a desktop or an opener. The child has no descriptor and no signal settings of this process.
std::optional<pid_t> startOpener(const Path& path, bool isOnItsOwn) {
  if (!hasDesktop()) return std::nullopt;
  const std::string text = path.string();
  const char* const arguments[] = {"xdg-open", text.c_str(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
  }
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  const int flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | (isOnItsOwn ? POSIX_SPAWN_SETSID : 0);
  posix_spawnattr_setflags(&attributes, static_cast<short>(flags));
  pid_t child = 0;
  const int code =
      ::posix_spawnp(&child, arguments[0], &actions, &attributes, const_cast<char* const*>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return code == 0 ? std::optional(child) : std::nullopt;
}

/// Whether the opener has ended well; nothing while it has not ended, with WNOHANG as the option.
std::optional<bool> endOf(pid_t opener, int option) {
  int status = 0;
  pid_t ended = 0;
  do {
    ended = ::waitpid(opener, &status, option);
  } while (ended < 0 && errno == EINTR);
  if (ended == 0) return std::nullopt;
  return ended == opener && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

bool showOnDesktop(const Path& path) {
  const auto opener = startOpener(path, false);
  return opener && endOf(*opener, 0).value_or(false);
}

void showOnDesktop(const Path& path, std::function<void(bool isShown)> done) {
  const auto opener = startOpener(path, true);
  if (!opener) return done(false);
  std::thread([opener = *opener, done = std::move(done)] {
    const auto deadline = steady_clock::now() + patience;
    for (;;) {
      if (const auto isShown = endOf(opener, WNOHANG)) return done(*isShown);
      if (steady_clock::now() >= deadline) break;
      std::this_thread::sleep_for(pause);
    }
    done(true);
    endOf(opener, 0);
  }).detach();
}

}  // namespace tarn

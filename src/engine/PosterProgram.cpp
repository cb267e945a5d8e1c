#include "engine/PosterProgram.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/auxv.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include "platform/Error.h"
#include "platform/host/Descriptor.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t largestPoster = 1 << 20;
constexpr milliseconds longestSleep{50};  // until the next look at a stop

[[noreturn]] void fail(int errnum) {
  throw PosixError(errnum, "start the program for posters");
}

/// The file that holds this code: a shared library, or the program itself.
Path ownFile() {
  Dl_info info{};
  static const int here = 0;
  const bool isFound = ::dladdr(&here, &info) != 0 && info.dli_fname;
  // The headers of the program stand at the beginning of its file.
  const auto start = reinterpret_cast<uintptr_t>(info.dli_fbase);
  const bool isProgram = isFound && ::getauxval(AT_PHDR) - start < 4096;
  std::error_code failure;
  if (!isFound || isProgram) return std::filesystem::read_symlink("/proc/self/exe", failure);
  return std::filesystem::weakly_canonical(info.dli_fname, failure);
}

/// A copy that is none of the standard streams, which the child gets anew.
Descriptor aboveStandard(Descriptor descriptor) {
  if (!descriptor.isOpen() || *descriptor > STDERR_FILENO) return descriptor;
  return Descriptor(::fcntl(*descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

/// What the child has and what it has not.
class SpawnSettings {
 public:
  SpawnSettings(int input, int output) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    const int results[] = {
        posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO),
        posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO),
        posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0),
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1),
        posix_spawn_file_actions_addchdir_np(&actions_, "/"),
        posix_spawnattr_setsigmask(&attributes_, &none),
        posix_spawnattr_setsigdefault(&attributes_, &all),
        posix_spawnattr_setpgroup(&attributes_, 0),
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP),
    };
    error_ = *std::ranges::max_element(results);
  }
  ~SpawnSettings() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  pid_t start(const Path& program) const {
    if (error_ != 0) fail(error_);
    std::string name = program.string();
    char* const arguments[] = {name.data(), nullptr};
    char* const noEnvironment[] = {nullptr};
    pid_t child = 0;
    const int error = ::posix_spawn(&child, name.c_str(), &actions_, &attributes_, arguments, noEnvironment);
    if (error != 0) fail(error);
    return child;
  }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
  int error_ = 0;
};

/// A child that is gone when this is, with all that it has started.
class Child {
 public:
  explicit Child(pid_t id) : id_(id) {}
  ~Child() {
    ::kill(-id_, SIGKILL);  // it leads a group of its own
    while (::waitpid(id_, nullptr, 0) < 0 && errno == EINTR) continue;
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

 private:
  const pid_t id_;
};

/// All that comes until the end; nothing if that does not come, or too much does.
std::optional<Bytes> readToEnd(int pipe, milliseconds timeLimit, const std::function<bool()>& isStopped) {
  const auto deadline = steady_clock::now() + timeLimit;
  Bytes bytes;
  std::array<uint8_t, 64 << 10> piece{};
  while (bytes.size() <= largestPoster && !isStopped() && steady_clock::now() < deadline) {
    pollfd source{pipe, POLLIN, 0};
    if (::poll(&source, 1, static_cast<int>(longestSleep.count())) <= 0) continue;
    const ssize_t count = ::read(pipe, piece.data(), piece.size());
    if (count == 0) return bytes;
    if (count > 0) bytes.insert(bytes.end(), piece.begin(), piece.begin() + count);
  }
  return std::nullopt;
}

bool isWholeJPEG(const Bytes& bytes) {
  constexpr std::array<uint8_t, 2> start{0xFF, 0xD8};
  constexpr std::array<uint8_t, 2> end{0xFF, 0xD9};
  return bytes.size() > 4 && std::equal(start.begin(), start.end(), bytes.begin()) &&
         std::equal(end.begin(), end.end(), bytes.end() - 2);
}

}  // namespace

std::optional<Path> posterProgram() {
  const Path folder = ownFile().parent_path();
  for (const char* place : {TARN_POSTER_FROM_LIBRARY, TARN_POSTER_FROM_PROGRAM, "tarn-poster"}) {
    Path program = (folder / place).lexically_normal();
    if (::access(program.c_str(), X_OK) == 0) return program;
  }
  return std::nullopt;
}

std::optional<Bytes> runPosterProgram(const Path& program, const Path& video, milliseconds timeLimit,
                                      const std::function<bool()>& isStopped) {
  const Descriptor input =
      aboveStandard(Descriptor(::open(video.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)));
  if (!input.isOpen()) fail(errno);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) fail(errno);
  const Descriptor answer = aboveStandard(Descriptor(ends[0]));
  Descriptor output = aboveStandard(Descriptor(ends[1]));
  if (!answer.isOpen() || !output.isOpen()) fail(errno);

  const Child child(SpawnSettings(*input, *output).start(program));
  output = Descriptor();
  auto poster = readToEnd(*answer, timeLimit, isStopped);
  return poster && isWholeJPEG(*poster) ? poster : std::nullopt;
}

}  // namespace tarn

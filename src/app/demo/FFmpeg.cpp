#include "app/demo/FFmpeg.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>

namespace tarn {
namespace {

std::mutex mutex;
pid_t running = 0;  ///< its id stays its own until it is taken, under the lock

void waitForEnd(pid_t child) {
  siginfo_t ended{};
  while (waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT) < 0) {
    if (errno != EINTR) throw PosixError(errno, "ffmpeg");
  }
}

}  // namespace

FFmpegFailed::FFmpegFailed(int code)
    : Error("Demo", code, fmt::format("ffmpeg failed on the recording (exit code {})", code)) {}

void runFFmpeg(const std::vector<std::string>& arguments) {
  std::vector<std::string> command{"ffmpeg", "-y"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  argv.reserve(command.size() + 1);
  for (std::string& word : command) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
  }
  std::unique_lock lock(mutex);
  const int failure = posix_spawnp(&running, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) running = 0;
  if (failure != 0) throw PosixError(failure, command.front());
  const pid_t child = running;
  lock.unlock();
  waitForEnd(child);
  lock.lock();
  running = 0;
  int status = 0;
  waitpid(child, &status, 0);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (code != 0) throw FFmpegFailed(code);
}

void endFFmpeg() {
  mutex.lock();
  if (running == 0) return;
  ::kill(running, SIGKILL);
  waitForEnd(running);
}

}  // namespace tarn

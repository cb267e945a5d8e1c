#include "support/TarnProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tarn::test {
namespace fs = std::filesystem;

ChildProgram::ChildProgram(const std::vector<std::string>& command, const Path& outputDirectory)
    : output_(outputDirectory / ("out-" + makeUUID())), errors_(outputDirectory / ("err-" + makeUUID())) {
  std::vector<char*> argv;
  for (const std::string& argument : command) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_.c_str(), O_WRONLY | O_CREAT, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors_.c_str(), O_WRONLY | O_CREAT, 0644);
  int failure = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) throw std::runtime_error("cannot start " + command.front());
}

ChildProgram::~ChildProgram() {
  if (status_) return;
  signal(SIGKILL);
  wait();
}

int ChildProgram::wait() {
  if (!status_) {
    int status = 0;
    waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
  }
  return *status_;
}

std::string TarnResult::lastLine() const {
  std::string text = output.substr(0, output.find_last_not_of('\n') + 1);
  return text.substr(text.rfind('\n') + 1);
}

std::vector<std::string> tarnCommand(const Path& home, const std::vector<std::string>& arguments) {
  std::vector<std::string> command{TARN_BINARY, "--home", home.string()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

TarnResult runTarn(const Path& home, const std::vector<std::string>& arguments) {
  fs::create_directories(home.parent_path());
  ChildProgram tarn(tarnCommand(home, arguments), home.parent_path());
  int code = tarn.wait();
  return {code, tarn.output(), tarn.errors()};
}

std::string leftIn(const Path& home) {
  std::string left;
  std::error_code missing;
  for (const auto& entry : fs::recursive_directory_iterator(home, missing)) {
    const std::string name = entry.path().lexically_relative(home);
    const bool isWork = name.starts_with("Documents/") || name.starts_with("Transfers/") || name.starts_with("tmp/");
    if (isWork || name.ends_with(".tmp")) left += name + " ";
  }
  for (const char* key : {"ActiveDownloads", "com.sorrel.capacitor.downloader.processingStates"}) {
    const std::string stored = contentOf(home / "Defaults" / key);
    if (stored != "[]") left += stored;
  }
  return left;
}

std::vector<std::string> savedFiles(const Path& home) {
  std::vector<std::string> files;
  std::error_code missing;
  for (const auto& entry : fs::recursive_directory_iterator(home / "Photos", missing)) {
    const std::string name = entry.path().lexically_relative(home / "Photos");
    if (entry.is_regular_file() && !name.starts_with(".")) files.push_back(name);
  }
  std::ranges::sort(files);
  return files;
}

size_t assetFiles(const Path& home) {
  std::error_code missing;
  return static_cast<size_t>(
      std::distance(fs::directory_iterator(home / "Photos/.assets", missing), fs::directory_iterator()));
}

std::string contentOf(const Path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace tarn::test

#include "app/Interrupt.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <string>
#include <utility>

#include "app/Commands.h"
#include "platform/Error.h"

namespace tarn {
namespace {

sigset_t interrupts() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

constexpr int timeToEnd = 1000;  // ms

/// Waits for nobody: neither for who does not read standard error nor for a thread that writes there.
[[noreturn]] void endAtOnce(const std::string& lastWords) {
  pollfd errors{STDERR_FILENO, POLLOUT, 0};
  if (poll(&errors, 1, 0) == 1 && (errors.revents & POLLOUT) != 0) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, lastWords.data(), lastWords.size());
  }
  _exit(ExitCode::interrupted);
}

void watch(int signals, int stop, const std::function<bool()>& handler, const std::optional<std::string>& lastWords) {
  std::array<pollfd, 2> sources{{{signals, POLLIN, 0}, {stop, POLLIN, 0}}};
  bool isEnding = false;
  int patience = -1;
  for (;;) {
    const int ready = poll(sources.data(), sources.size(), patience);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) endAtOnce(*lastWords);
    if (ready < 0 || sources[1].revents != 0) return;
    signalfd_siginfo info{};
    if (read(signals, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return;
    if (isEnding) _exit(ExitCode::interrupted);
    isEnding = handler();
    if (isEnding && lastWords && info.ssi_signo == SIGTERM) patience = timeToEnd;
  }
}

}  // namespace

void blockInterrupts() {
  sigset_t set = interrupts();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

InterruptWatcher::InterruptWatcher(std::function<bool()> handler, std::optional<std::string> lastWords)
    : stopEvent_(eventfd(0, EFD_CLOEXEC)) {
  const sigset_t set = interrupts();
  signals_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
  if (!stopEvent_.isOpen() || !signals_.isOpen()) throw PosixError(errno, "wait for interrupts");
  thread_ = std::thread([signals = *signals_, stop = *stopEvent_, handler = std::move(handler),
                         lastWords = std::move(lastWords)] { watch(signals, stop, handler, lastWords); });
}

InterruptWatcher::~InterruptWatcher() {
  eventfd_write(*stopEvent_, 1);
  thread_.join();
}

}  // namespace tarn

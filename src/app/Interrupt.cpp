#include "app/Interrupt.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
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

}  // namespace

void blockInterrupts() {
  sigset_t set = interrupts();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

InterruptWatcher::InterruptWatcher(std::function<bool()> handler) : stopEvent_(eventfd(0, EFD_CLOEXEC)) {
  const sigset_t set = interrupts();
  signals_ = Descriptor(signalfd(-1, &set, SFD_CLOEXEC));
  if (!stopEvent_.isOpen() || !signals_.isOpen()) throw PosixError(errno, "wait for interrupts");
  thread_ = std::thread([signals = *signals_, stop = *stopEvent_, handler = std::move(handler)] {
    std::array<pollfd, 2> sources{{{signals, POLLIN, 0}, {stop, POLLIN, 0}}};
    bool isEnding = false;
    while (poll(sources.data(), sources.size(), -1) >= 0 || errno == EINTR) {
      if (sources[1].revents != 0) break;
      if (sources[0].revents == 0) continue;
      signalfd_siginfo info{};
      if (read(signals, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) break;
      if (isEnding) _exit(ExitCode::interrupted);
      isEnding = handler();
    }
  });
}

InterruptWatcher::~InterruptWatcher() {
  eventfd_write(*stopEvent_, 1);
  thread_.join();
}

}  // namespace tarn

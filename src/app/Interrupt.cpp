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

namespace tarn {
namespace {

sigset_t interrupts() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

constexpr int interruptedExitCode = 130;

}  // namespace

void blockInterrupts() {
  sigset_t set = interrupts();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

InterruptWatcher::InterruptWatcher(std::function<void()> handler) : stopEvent_(eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([stop = stopEvent_, handler = std::move(handler)] {
    sigset_t set = interrupts();
    const int signals = signalfd(-1, &set, SFD_CLOEXEC);
    std::array<pollfd, 2> sources{{{signals, POLLIN, 0}, {stop, POLLIN, 0}}};
    bool isInterrupted = false;
    while (poll(sources.data(), sources.size(), -1) >= 0 || errno == EINTR) {
      if (sources[1].revents != 0) break;
      if (sources[0].revents == 0) continue;
      signalfd_siginfo info{};
      if (read(signals, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) break;
      if (std::exchange(isInterrupted, true)) _exit(interruptedExitCode);
      handler();
    }
    close(signals);
  });
}

InterruptWatcher::~InterruptWatcher() {
  eventfd_write(stopEvent_, 1);
  thread_.join();
  close(stopEvent_);
}

}  // namespace tarn

#include "api/detail/SocketClient.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/Error.h"
#include "serve/HomeSocket.h"

namespace tarn {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t largestLine = 64 << 20;
constexpr size_t pieceSize = 64 << 10;

}  // namespace

SocketClient::SocketClient(Path home, Descriptor socket)
    : home_(std::move(home)), socket_(std::move(socket)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_.isOpen()) throw PosixError(errno, "wait for interrupts");
}

std::unique_ptr<SocketClient> SocketClient::connect(const Path& home) {
  auto socket = HomeSocket(home).connect();
  if (!socket) return nullptr;
  // NOLINTNEXTLINE: the constructor is private
  return std::unique_ptr<SocketClient>(new SocketClient(home, std::move(*socket)));
}

bool SocketClient::isLetIn(milliseconds patience) {
  try {
    const auto greeting = nextMessage(steady_clock::now() + patience);
    if (!greeting) return false;
    if (valueAt<int64_t>(*greeting, "protocol", 0) == HomeSocket::protocol) return true;
  } catch (const EngineLost&) {
    return false;
  }
  throw EngineRefused("Another version of tarn works in " + home_.string(),
                      "Wait until it has ended, or use its commands.");
}

EngineClient::Answer SocketClient::call(const std::string& plugin, const std::string& method, JSObject options) {
  const std::string id = std::to_string(++lastId_);
  send(JSObject{{"id", id}, {"plugin", plugin}, {"method", method}, {"options", std::move(options)}}.json() + "\n");
  for (;;) {
    const auto message = nextMessage(std::nullopt);
    if (!message) throw EngineInterrupted();
    if (valueAt<std::string>(*message, "id", "") != id) continue;
    if (const auto* data = valueAt<JSObject>(*message, "resolve"))
      return {.resolved = true, .data = *data, .message = {}};
    const auto* rejection = valueAt<JSObject>(*message, "reject");
    if (!rejection) return {};
    return {.resolved = false,
            .data = valueAt(*rejection, "data", JSObject()),
            .message = valueAt<std::string>(*rejection, "message", "")};
  }
}

std::optional<EngineClient::Event> SocketClient::nextEvent(std::optional<milliseconds> timeout) {
  const Deadline deadline = timeout ? Deadline(steady_clock::now() + *timeout) : std::nullopt;
  while (!isInterrupted_ && events_.empty() && nextMessage(deadline)) continue;
  if (isInterrupted_ || events_.empty()) return std::nullopt;
  Event event = std::move(events_.front());
  events_.pop_front();
  return event;
}

void SocketClient::interrupt() {
  isInterrupted_ = true;
  eventfd_write(*wake_, 1);
}

/// The next message of the engine, kept if it is an event; nothing at the deadline, or after an interrupt.
std::optional<JSObject> SocketClient::nextMessage(const Deadline& deadline) {
  const auto line = nextLine(deadline);
  if (!line) return std::nullopt;
  auto message = JSObject::parse(*line);
  if (!message) throw EngineLost("The engine's answer cannot be understood");
  const auto* event = valueAt<std::string>(*message, "event");
  if (event) events_.push_back({*event, valueAt(*message, "data", JSObject())});
  return message;
}

std::optional<std::string> SocketClient::nextLine(const Deadline& deadline) {
  for (;;) {
    const size_t end = received_.find('\n', searched_);
    if (end != std::string::npos) {
      std::string line = received_.substr(0, end);
      received_.erase(0, end + 1);
      searched_ = 0;
      return line;
    }
    searched_ = received_.size();
    if (searched_ > largestLine) throw EngineLost("The engine's answer is too long");
    if (!waitForBytes(deadline)) return std::nullopt;
    receive();
  }
}

bool SocketClient::waitForBytes(const Deadline& deadline) {
  std::array<pollfd, 2> sources{{{*socket_, POLLIN, 0}, {*wake_, POLLIN, 0}}};
  for (;;) {
    int timeout = -1;
    if (deadline) {
      const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now());
      timeout = static_cast<int>(std::clamp<milliseconds::rep>(left.count(), 0, 60'000));
    }
    const int count = poll(sources.data(), sources.size(), timeout);
    if (count < 0 && errno != EINTR) throw PosixError(errno, "wait for the engine");
    if (isInterrupted_) return false;
    if (count > 0) return true;
    if (count == 0 && deadline && steady_clock::now() >= *deadline) return false;
  }
}

void SocketClient::receive() {
  const size_t size = received_.size();
  received_.resize(size + pieceSize);
  const ssize_t count = ::recv(*socket_, received_.data() + size, pieceSize, 0);
  received_.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
  if (count == 0 || (count < 0 && errno != EINTR)) throw EngineLost("The engine has ended");
}

void SocketClient::send(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::send(*socket_, text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw EngineLost("The engine has ended");
    text.remove_prefix(static_cast<size_t>(count));
  }
}

}  // namespace tarn

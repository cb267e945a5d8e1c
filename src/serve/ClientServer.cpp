#include "serve/ClientServer.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <condition_variable>
#include <future>
#include <optional>
#include <thread>

#include "platform/FileManager.h"
#include "serve/HomeSocket.h"
#include "serve/detail/ServerParts.h"

namespace tarn {

namespace asio = boost::asio;
using local = asio::local::stream_protocol;
using boost::system::error_code;

namespace {

constexpr size_t mostClients = PageHub::mostPages;
constexpr size_t largestLine = 1 << 20;
constexpr std::chrono::milliseconds acceptPause{100};

class ClientSocket : public QueuedConnection {
 public:
  explicit ClientSocket(local::socket socket) : socket_(std::move(socket)) {}

  local::socket& socket() { return socket_; }

 private:
  asio::any_io_executor executor() override { return socket_.get_executor(); }

  asio::awaitable<bool> write(const PageText& text) override {
    const std::array<asio::const_buffer, 2> line{asio::buffer(*text), asio::buffer("\n", 1)};
    const auto [failure, count] = co_await asio::async_write(socket_, line, quietly);
    co_return !failure;
  }

  void closeSocket() override {
    error_code ignored;
    socket_.close(ignored);
  }

  local::socket socket_;
};

}  // namespace

class ClientServer::Core {
 public:
  explicit Core(const std::vector<CAPPlugin*>& plugins)
      : hub_(plugins.front()->jsName(), makeUUID(), {},
             [this](const std::string& client, PageCommand command) { commands_.run(client, std::move(command)); }),
        commands_(plugins, mailbox_, [this](const std::string& client, const std::string& id, const auto& answer) {
          hub_.answer(client, id, answer);
        }) {
    thread_ = std::thread([this] { context_.run(); });
  }

  ~Core() {
    mailbox_->close();
    asio::post(context_, [this] {
      closeDoor();
      for (const auto& close : live_) close();
      work_.reset();
    });
    thread_.join();
  }

  void listen(const Path& home) {
    auto door = std::make_unique<HomeSocket>(home);
    Descriptor listener = door->listen();
    mailbox_->post([this, door = std::move(door), listener = std::move(listener)]() mutable {
      door_ = std::move(door);
      acceptor_.assign({}, listener.release());
      asio::co_spawn(context_, accept(), logFailure);
    });
  }

  void sendEvent(const std::string& name, const JSObject& data) {
    mailbox_->post([this, name, data] { hub_.sendEvent(name, data); });
  }

  size_t clients() const {
    std::lock_guard guard(mutex_);
    return clients_;
  }

  void closeWhenUnused(const std::stop_token& stop) {
    while (waitUntilUnused(stop) && !closeIfUnused()) continue;
  }

 private:
  /// One client more, for as long as it is there.
  class Count {
   public:
    explicit Count(Core& core) : core_(core) {
      std::lock_guard guard(core_.mutex_);
      ++core_.clients_;
    }
    ~Count() {
      std::lock_guard guard(core_.mutex_);
      --core_.clients_;
      core_.changed_.notify_all();
    }
    Count(const Count&) = delete;
    Count& operator=(const Count&) = delete;

   private:
    Core& core_;
  };

  bool waitUntilUnused(const std::stop_token& stop) {
    std::unique_lock guard(mutex_);
    return changed_.wait(guard, stop, [this] { return clients_ == 0; }) && !stop.stop_requested();
  }

  /// Who comes at this very moment gets no first line, and tries again elsewhere.
  bool closeIfUnused() {
    std::promise<bool> isClosed;
    mailbox_->post([&] {
      const bool isUnused = clients() == 0;
      if (isUnused) closeDoor();
      isClosed.set_value(isUnused);
    });
    return isClosed.get_future().get();
  }

  void closeDoor() {
    if (!door_) return;
    door_->remove();
    door_.reset();
    error_code ignored;
    acceptor_.close(ignored);
    pause_.cancel();
  }

  asio::awaitable<void> accept() {
    for (;;) {
      auto [failure, socket] = co_await acceptor_.async_accept(quietly);
      if (!door_) co_return;
      if (!failure) asio::co_spawn(context_, serve(std::move(socket), std::make_unique<Count>(*this)), logFailure);
      // No descriptor is free, or no room for another client: those that come next wait.
      while (door_ && (failure || clients() == mostClients)) {
        pause_.expires_after(acceptPause);
        co_await pause_.async_wait(quietly);
        failure.clear();
      }
    }
  }

  /// A client's whole life.
  asio::awaitable<void> serve(local::socket socket, [[maybe_unused]] std::unique_ptr<Count> count) {
    if (!door_ || !HomeSocket::isOwnUser(socket.native_handle())) co_return;
    auto client = std::make_shared<ClientSocket>(std::move(socket));
    const std::string name = "client-" + std::to_string(++clientsSoFar_);
    const Live live(live_, [client] { client->close(); });
    client->send(std::make_shared<std::string>(JSObject{{"protocol", HomeSocket::protocol}}.json()));
    hub_.connect({.page = name, .epoch = {}, .lastSeen = 0}, client);
    std::string received;
    for (;;) {
      auto buffer = asio::dynamic_buffer(received, largestLine);
      const auto [failure, size] = co_await asio::async_read_until(client->socket(), buffer, '\n', quietly);
      if (failure) break;
      hub_.receive(name, *client, std::string_view(received).substr(0, size - 1));
      received.erase(0, size);
    }
    hub_.disconnect(name, *client, {});
    hub_.forget(name);
    client->close();
  }

  mutable std::mutex mutex_;
  std::condition_variable_any changed_;
  size_t clients_ = 0;

  // Used on the thread alone, but for posts to the context.
  asio::io_context context_{1};
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_{context_.get_executor()};
  const std::shared_ptr<Mailbox> mailbox_ = std::make_shared<Mailbox>(context_);
  local::acceptor acceptor_{context_};
  asio::steady_timer pause_{context_};
  std::unique_ptr<HomeSocket> door_;  ///< while clients are let in
  PageHub hub_;
  CommandWorker commands_;
  LiveConnections live_;
  uint64_t clientsSoFar_ = 0;

  std::thread thread_;
};

ClientServer::ClientServer(const std::vector<CAPPlugin*>& plugins) : core_(std::make_unique<Core>(plugins)) {}

ClientServer::~ClientServer() = default;

void ClientServer::listen(const Path& home) {
  core_->listen(home);
}

void ClientServer::sendEvent(const std::string& name, const JSObject& data) {
  core_->sendEvent(name, data);
}

bool ClientServer::hasClients() const {
  return core_->clients() > 0;
}

void ClientServer::closeWhenUnused(const std::stop_token& stop) {
  core_->closeWhenUnused(stop);
}

}  // namespace tarn

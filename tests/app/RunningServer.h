#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <csignal>

#include "app/CommandTest.h"
#include "platform/Capacitor.h"
#include "support/RawHTTP.h"

namespace tarn::test {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;

/// The WebSocket of a page, each operation waited for; its end drops the connection without a word.
class PageClient {
 public:
  /// Throws when it is refused.
  PageClient(uint16_t port, const std::string& base, const std::string& cookie, const std::string& page) {
    stream_.next_layer().connect({asio::ip::address_v4::loopback(), port});
    const std::string host = "127.0.0.1:" + std::to_string(port);
    stream_.set_option(websocket::stream_base::decorator([&](websocket::request_type& request) {
      request.set("Origin", "http://" + host);
      request.set("Cookie", cookie);
    }));
    stream_.handshake(host, base + "bridge/socket?epoch=&seq=0&page=" + page);
  }

  void command(const std::string& method, const JSObject& options = {}) {
    const JSObject call{
        {"id", std::to_string(++commands_)}, {"plugin", "TarnBridge"}, {"method", method}, {"options", options}};
    boost::system::error_code gone;
    stream_.write(asio::buffer(call.json()), gone);
  }

  /// The next message that holds these words, those before it dropped; empty when the connection is gone.
  std::string next(const std::string& words = "") {
    for (;;) {
      boost::beast::flat_buffer buffer;
      boost::system::error_code gone;
      stream_.read(buffer, gone);
      std::string message = boost::beast::buffers_to_string(buffer.data());
      if (gone) return {};
      if (message.find(words) != std::string::npos) return message;
    }
  }

 private:
  asio::io_context context_;
  websocket::stream<asio::ip::tcp::socket> stream_{context_};
  int commands_ = 0;  ///< each has its number as its id
};

/// A real `tarn serve` with a home and a built page of its own.
class RunningServer : public CommandTest {
 protected:
  RunningServer() {
    put(place_ / "web/index.html", "<!doctype html><head><title>Page</title></head>");
    put(place_ / "web/bridge/native.js", "notTheHosts();");
    start();
  }

  /// Whatever a test has left open, the server leaves in order, and within a minute.
  void TearDown() override {
    tarn_->signal(SIGTERM);
    const bool isEnded = eventually([this] { return fact("State").starts_with("Z"); });
    EXPECT_TRUE(isEnded) << tarn_->errors();
    if (!isEnded) tarn_->signal(SIGKILL);
    EXPECT_EQ(tarn_->wait(), 130) << tarn_->errors();
  }

  /// Starts the server, at the same port as before.
  void start() {
    tarn_ = CommandTest::start({"serve", "--web", place_ / "web", "--port", std::to_string(port_)});
    eventually([this] { return tarn_->output().ends_with('\n'); });
    const std::string address = tarn_->output();
    ASSERT_TRUE(address.starts_with("http://127.0.0.1:") && address.ends_with('\n')) << address << tarn_->errors();
    port_ = static_cast<uint16_t>(std::stoi(between(address, "127.0.0.1:", "/")));
    token_ = between(address, "token=", "\n");
    host_ = "127.0.0.1:" + std::to_string(port_);
    takeCookie(getAsStranger("/?token=" + token_));
    asio::local::stream_protocol::socket door(context_);
    door.connect((home_ / ".socket").string());
    ucred peer{};
    socklen_t size = sizeof peer;
    ::getsockopt(door.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
    pid_ = peer.pid;
  }

  /// What a browser keeps of an answer: the cookie, and its path.
  void takeCookie(const std::string& answer) {
    cookie_ = between(answer, "Set-Cookie: ", ";");
    base_ = between(answer, "; Path=", "\r\n");
  }

  /// An answer to who has no cookie.
  std::string getAsStranger(const std::string& target, const std::string& fields = "") {
    return askServer(port_, "GET " + target + " HTTP/1.1\r\nHost: " + host_ + "\r\n" + fields + "\r\n");
  }

  /// `target` is relative, as in the page.
  std::string get(const std::string& target, const std::string& fields = "") {
    return getAsStranger(base_ + target, "Cookie: " + cookie_ + "\r\n" + fields);
  }

  std::unique_ptr<PageClient> connect(const std::string& page) {
    return std::make_unique<PageClient>(port_, base_, cookie_, page);
  }

  /// What the kernel says of the server: "VmRSS", "State".
  std::string fact(const std::string& name) const {
    return between(contentOf("/proc/" + std::to_string(pid_) + "/status"), name + ":\t", "\n");
  }

  Child tarn_;
  asio::io_context context_;
  pid_t pid_ = 0;
  uint16_t port_ = 0;
  std::string token_;
  std::string host_;
  std::string base_;  // all is served below it
  std::string cookie_;
};

}  // namespace tarn::test

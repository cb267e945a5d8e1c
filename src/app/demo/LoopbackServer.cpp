#include "app/demo/LoopbackServer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <thread>
#include <utility>

namespace tarn {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;

class LoopbackServer::Listener {
 public:
  explicit Listener(Path directory)
      : directory_(std::move(directory)),
        acceptor_(context_, {asio::ip::address_v4::loopback(), 0}),
        port_(acceptor_.local_endpoint().port()) {
    accept();
    thread_ = std::thread([this] { context_.run(); });
  }

  ~Listener() {
    context_.stop();
    thread_.join();
  }

  uint16_t port() const { return port_; }

 private:
  void accept() {
    acceptor_.async_accept([this](const boost::system::error_code& failure, asio::ip::tcp::socket socket) {
      if (!failure) answer(beast::tcp_stream(std::move(socket)));
      accept();
    });
  }

  void answer(beast::tcp_stream stream) {
    boost::system::error_code failure;
    beast::flat_buffer buffer;
    http::request<http::empty_body> request;
    http::read(stream, buffer, request, failure);
    if (failure) return;
    std::string name(request.target().substr(1));
    http::response<http::file_body> response;
    response.keep_alive(false);
    bool isPlain = !name.empty() && name.front() != '.' && name.find('/') == std::string::npos;
    if (isPlain) response.body().open((directory_ / name).c_str(), beast::file_mode::scan, failure);
    if (!isPlain || failure) {
      http::response<http::empty_body> missing(http::status::not_found, request.version());
      missing.prepare_payload();
      http::write(stream, missing, failure);
      return;
    }
    response.set(http::field::content_type, "video/mp4");
    response.prepare_payload();
    http::response_serializer<http::file_body> serializer(response);
    request.method() == http::verb::head ? http::write_header(stream, serializer, failure)
                                         : http::write(stream, serializer, failure);
    stream.socket().shutdown(asio::ip::tcp::socket::shutdown_both, failure);
  }

  const Path directory_;
  asio::io_context context_{1};
  asio::ip::tcp::acceptor acceptor_;
  const uint16_t port_;
  std::thread thread_;
};

LoopbackServer::LoopbackServer(Path directory) : listener_(std::make_unique<Listener>(std::move(directory))) {}

LoopbackServer::~LoopbackServer() = default;

std::string LoopbackServer::url(const std::string& filename) const {
  return "http://127.0.0.1:" + std::to_string(listener_->port()) + "/" + filename;
}

}  // namespace tarn

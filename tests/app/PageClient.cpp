#include "app/PageClient.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <stdexcept>

namespace tarn::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;
using boost::system::error_code;

std::string askServer(uint16_t port, const std::string& request) {
  asio::io_context context;
  tcp::socket socket(context);
  socket.connect({asio::ip::address_v4::loopback(), port});
  error_code ended;
  asio::write(socket, asio::buffer(request), ended);
  std::string answer;
  asio::read(socket, asio::dynamic_buffer(answer), ended);
  return answer;
}

class PageClient::Socket {
 public:
  asio::io_context context;
  beast::websocket::stream<tcp::socket> stream{context};
};

PageClient::PageClient(uint16_t port, const std::string& cookie, const Greeting& greeting, int receiveBuffer)
    : socket_(std::make_unique<Socket>()) {
  namespace http = beast::http;
  tcp::socket& socket = socket_->stream.next_layer();
  socket.open(tcp::v4());
  if (receiveBuffer > 0) socket.set_option(tcp::socket::receive_buffer_size(receiveBuffer));
  socket.connect({asio::ip::address_v4::loopback(), port});
  const std::string host = "127.0.0.1:" + std::to_string(port);
  socket_->stream.set_option(beast::websocket::stream_base::decorator([&](beast::websocket::request_type& request) {
    request.set(http::field::origin, "http://" + host);
    request.set(http::field::cookie, cookie);
  }));
  error_code refused;
  socket_->stream.handshake(
      host,
      "/bridge/socket?page=" + greeting.page + "&epoch=" + greeting.epoch + "&seq=" + std::to_string(greeting.seen),
      refused);
  if (refused) throw std::runtime_error(refused.message());
}

PageClient::~PageClient() = default;

bool PageClient::send(const std::string& message, bool isText) {
  error_code gone;
  socket_->stream.text(isText);
  socket_->stream.write(asio::buffer(message), gone);
  return !gone;
}

void PageClient::command(const std::string& id, const std::string& method, const JSObject& options) {
  send(JSObject{{"id", id}, {"plugin", "TarnBridge"}, {"method", method}, {"options", options}}.json());
}

std::string PageClient::next() {
  beast::flat_buffer buffer;
  error_code gone;
  socket_->stream.read(buffer, gone);
  return gone ? std::string() : beast::buffers_to_string(buffer.data());
}

std::string PageClient::nextWith(const std::string& words) {
  for (;;) {
    std::string message = next();
    if (message.empty() || message.find(words) != std::string::npos) return message;
  }
}

}  // namespace tarn::test

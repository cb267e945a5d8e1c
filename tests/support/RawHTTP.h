#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <cstdint>
#include <string>

namespace tarn::test {

/// Sends a text to a loopback address, byte by byte as it stands, and reads the answer to its end.
inline std::string askServer(uint16_t port, const std::string& request,
                             const boost::asio::ip::address& address = boost::asio::ip::address_v4::loopback()) {
  boost::asio::io_context context;
  boost::asio::ip::tcp::socket socket(context);
  socket.connect({address, port});
  boost::system::error_code ended;
  boost::asio::write(socket, boost::asio::buffer(request), ended);
  std::string answer;
  boost::asio::read(socket, boost::asio::dynamic_buffer(answer), ended);
  return answer;
}

inline std::string between(const std::string& text, const std::string& before, const std::string& after) {
  const size_t start = text.find(before);
  if (start == std::string::npos) return {};
  const size_t from = start + before.size();
  return text.substr(from, text.find(after, from) - from);
}

inline std::string bodyOf(const std::string& answer) {
  return answer.substr(answer.find("\r\n\r\n") + 4);
}

inline int statusOf(const std::string& answer) {
  return answer.size() > 12 ? std::stoi(answer.substr(9, 3)) : 0;
}

}  // namespace tarn::test

#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <vector>

namespace tarn {

/// One port of both loopback addresses: who had the other half of it could answer in this host's place.
class LoopbackPort {
 public:
  /// Port 0 is any that is free. Throws Error when the port cannot be had.
  LoopbackPort(boost::asio::io_context& context, uint16_t port);

  uint16_t number() const { return v4_.local_endpoint().port(); }
  /// Those that listen: on a machine without IPv6 one.
  std::vector<boost::asio::ip::tcp::acceptor*> acceptors();
  void close();

 private:
  void open(uint16_t port);

  boost::asio::ip::tcp::acceptor v4_;
  boost::asio::ip::tcp::acceptor v6_;
};

}  // namespace tarn

#include "serve/detail/LoopbackPort.h"

#include <fmt/format.h>

#include <boost/asio/ip/v6_only.hpp>

#include "platform/Error.h"

namespace tarn {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using boost::system::system_error;

namespace {

constexpr int mostAttempts = 20;

}  // namespace

LoopbackPort::LoopbackPort(asio::io_context& context, uint16_t port) : v4_(context), v6_(context) {
  for (int attempt = 1;; ++attempt) {
    try {
      open(port);
      return;
    } catch (const system_error& failure) {
      close();
      if (port == 0 && attempt < mostAttempts) continue;  // the other half of a free port was taken
      throw Error("Serve", failure.code().value(),
                  fmt::format("Port {} cannot be had: {}. Try another --port", port, failure.code().message()));
    }
  }
}

/// Throws system_error.
void LoopbackPort::open(uint16_t port) {
  v4_ = tcp::acceptor(v4_.get_executor(), {asio::ip::address_v4::loopback(), port});
  error_code missing;
  v6_.open(tcp::v6(), missing);
  if (missing) return;
  v6_.set_option(asio::ip::v6_only(true));
  v6_.set_option(tcp::acceptor::reuse_address(true));
  v6_.bind({asio::ip::address_v6::loopback(), number()}, missing);
  if (missing == asio::error::address_in_use) throw system_error(missing);
  if (missing) {
    v6_.close();
    return;
  }
  v6_.listen();
}

std::vector<tcp::acceptor*> LoopbackPort::acceptors() {
  return v6_.is_open() ? std::vector{&v4_, &v6_} : std::vector{&v4_};
}

void LoopbackPort::close() {
  error_code ignored;
  v4_.close(ignored);
  v6_.close(ignored);
}

}  // namespace tarn

#include "support/FaultServer.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <list>
#include <mutex>
#include <thread>
#include <utility>

namespace tarn::test {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

tcp::endpoint loopback(uint16_t port) {
  return {asio::ip::address_v4::loopback(), port};
}

bool send(tcp::socket& socket, const auto& bytes) {
  error_code failure;
  asio::write(socket, asio::buffer(bytes), failure);
  return !failure;
}

ReceivedRequest received(const http::request<http::empty_body>& message) {
  ReceivedRequest request{message.method_string(), message.target(), {}};
  for (const auto& field : message) {
    std::string name(field.name_string());
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
    request.headers[name] = field.value();
  }
  return request;
}

/// The part of the file that an answer sends.
struct Selection {
  int status = 200;
  uint64_t offset = 0;
  uint64_t length = 0;
  std::string contentRange;
};

/// Open-ended ranges only ("bytes=N-"), which is what a resuming client sends.
Selection select(const ReceivedRequest& request, const ServedFile& file, const Reply& reply) {
  Selection whole{200, 0, file.size, {}};
  const std::string range = request.header("range");
  const std::string condition = request.header("if-range");
  const bool isOtherVersion = !condition.empty() && condition != file.etag && condition != file.lastModified;
  if (range.empty() || reply.ignoresRange || (isOtherVersion && !reply.ignoresIfRange)) return whole;

  const auto asked = static_cast<int64_t>(std::stoull(range.substr(std::string("bytes=").size())));
  const auto offset = static_cast<uint64_t>(asked + reply.rangeShift);
  if (offset >= file.size) return {416, 0, 0, reply.contentRange.value_or(fmt::format("bytes */{}", file.size))};
  const auto truth = fmt::format("bytes {}-{}/{}", offset, file.size - 1, file.size);
  return {206, offset, file.size - offset, reply.contentRange.value_or(truth)};
}

std::string headOf(const ServedFile& file, const Selection& selection, const Reply& reply) {
  std::string head =
      fmt::format("HTTP/1.1 {} -\r\nDate: {:%a, %d %b %Y %T} GMT\r\nAccept-Ranges: bytes\r\nContent-Type: {}\r\n",
                  selection.status, fmt::gmtime(std::chrono::system_clock::now()), file.contentType);
  const bool isLie = reply.statedLength && selection.status == 200;
  const std::pair<const char*, std::string> fields[] = {
      {"ETag", reply.omitsValidators ? "" : file.etag},
      {"Last-Modified", reply.omitsValidators ? "" : file.lastModified},
      {"Content-Range", selection.contentRange},
      {"Transfer-Encoding", reply.chunked ? "chunked" : ""},
      {"Connection", reply.omitsLength ? "close" : ""},
      {"Content-Length",
       reply.chunked || reply.omitsLength ? "" : std::to_string(isLie ? *reply.statedLength : selection.length)}};
  for (const auto& [name, value] : fields) {
    if (!value.empty()) head += fmt::format("{}: {}\r\n", name, value);
  }
  return head + "\r\n";
}

}  // namespace

ServedFile ServedFile::of(Bytes bytes) {
  const uint64_t size = bytes.size();
  return {size, [bytes = std::move(bytes)](uint64_t offset, std::span<uint8_t> target) {
            std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(offset), target.size(), target.begin());
          }};
}

ServedFile ServedFile::withETag(std::string tag) const {
  ServedFile file = *this;
  file.etag = std::move(tag);
  return file;
}

std::string ReceivedRequest::header(const std::string& name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

class FaultServer::Core {
 public:
  explicit Core(uint16_t port) : acceptor_(context_, loopback(port)), port_(acceptor_.local_endpoint().port()) {
    thread_ = std::thread([this] { accept(); });
  }

  ~Core() {
    stopped_ = true;
    ::shutdown(acceptor_.native_handle(), SHUT_RDWR);
    thread_.join();
    for (auto& connection : connections_) ::shutdown(connection.socket.native_handle(), SHUT_RDWR);
    for (auto& connection : connections_) connection.thread.join();
  }

  uint16_t port() const { return port_; }

  void serve(const std::string& path, ServedFile file, std::vector<Reply> replies, Reply afterwards) {
    std::lock_guard guard(mutex_);
    paths_[path] = {std::move(file), std::move(replies), std::move(afterwards), 0};
  }

  std::vector<ReceivedRequest> requests() const {
    std::lock_guard guard(mutex_);
    return requests_;
  }

 private:
  struct Served {
    ServedFile file;
    std::vector<Reply> replies;
    Reply afterwards;
    size_t count = 0;  ///< requests so far
  };
  struct Connection {
    tcp::socket socket;
    std::thread thread = {};
  };

  void accept() {
    while (!stopped_) {
      error_code failure;
      tcp::socket socket = acceptor_.accept(failure);
      if (failure) continue;
      auto& connection = connections_.emplace_back(std::move(socket));
      connection.thread = std::thread([this, &connection] { converse(connection.socket); });
    }
  }

  void converse(tcp::socket& socket) {
    boost::beast::flat_buffer buffer;
    error_code ended;
    for (bool goesOn = true; goesOn && !stopped_;) {
      http::request<http::empty_body> message;
      http::read(socket, buffer, message, ended);
      goesOn = !ended && answer(socket, received(message));
    }
    socket.shutdown(tcp::socket::shutdown_both, ended);
  }

  /// False when the connection is to be closed.
  bool answer(tcp::socket& socket, const ReceivedRequest& request) {
    const auto [file, reply] = next(request);
    const bool isHead = request.method == "HEAD";
    if (!file || reply.status) {
      const std::string page = fmt::format("<html><body>{}</body></html>", reply.status.value_or(404));
      std::string head =
          fmt::format("HTTP/1.1 {} -\r\nContent-Length: {}\r\n", reply.status.value_or(404), page.size());
      if (!reply.location.empty()) head += fmt::format("Location: {}\r\n", reply.location);
      return send(socket, head + "\r\n" + (isHead ? "" : page));
    }
    const Selection selection = select(request, *file, reply);
    if (!send(socket, headOf(*file, selection, reply))) return false;
    return isHead || (sendBody(socket, *file, selection, reply) && !reply.omitsLength && !reply.statedLength);
  }

  bool sendBody(tcp::socket& socket, const ServedFile& file, const Selection& selection, const Reply& reply) {
    constexpr uint64_t largestPiece = 256UL * 1024;
    constexpr uint64_t piecesPerSecond = 20;
    const uint64_t pace = reply.bytesPerSecond / piecesPerSecond;
    const uint64_t cut = std::min(reply.closeAfter.value_or(UINT64_MAX), reply.stallAfter.value_or(UINT64_MAX));
    const uint64_t end = std::min(selection.length, cut);
    Bytes piece;
    for (uint64_t sent = 0; sent < end && !stopped_; sent += piece.size()) {
      piece.resize(std::min(end - sent, pace ? pace : largestPiece));
      file.fill(selection.offset + sent, piece);
      if (reply.chunked && !send(socket, fmt::format("{:x}\r\n", piece.size()))) return false;
      if (!send(socket, piece) || (reply.chunked && !send(socket, std::string("\r\n")))) return false;
      if (pace) std::this_thread::sleep_for(std::chrono::milliseconds(1000 / piecesPerSecond));
    }
    error_code gone;
    for (piece.resize(1); reply.stallAfter && !gone;) socket.read_some(asio::buffer(piece), gone);
    if (stopped_ || reply.closeAfter || reply.stallAfter) return false;
    return !reply.chunked || send(socket, std::string("0\r\n\r\n"));
  }

  std::pair<std::optional<ServedFile>, Reply> next(const ReceivedRequest& request) {
    std::lock_guard guard(mutex_);
    requests_.push_back(request);
    const auto found = paths_.find(request.target);
    if (found == paths_.end()) return {};
    Served& served = found->second;
    const size_t index = served.count++;
    const Reply reply = index < served.replies.size() ? served.replies[index] : served.afterwards;
    return {reply.file ? *reply.file : served.file, reply};
  }

  asio::io_context context_;
  tcp::acceptor acceptor_;
  const uint16_t port_;
  std::atomic<bool> stopped_ = false;
  std::thread thread_;
  std::list<Connection> connections_;  ///< of the thread, as long as it runs
  mutable std::mutex mutex_;
  std::map<std::string, Served> paths_;
  std::vector<ReceivedRequest> requests_;
};

FaultServer::FaultServer(uint16_t port) {
  ::setenv("no_proxy", "127.0.0.1", 1);
  core_ = std::make_unique<Core>(port);
}

FaultServer::~FaultServer() = default;

uint16_t FaultServer::port() const {
  return core_->port();
}

std::string FaultServer::url(const std::string& path) const {
  return fmt::format("http://127.0.0.1:{}{}", port(), path);
}

void FaultServer::serve(const std::string& path, ServedFile file, std::vector<Reply> replies, Reply afterwards) {
  core_->serve(path, std::move(file), std::move(replies), std::move(afterwards));
}

std::vector<ReceivedRequest> FaultServer::requests() const {
  return core_->requests();
}

uint16_t FaultServer::closedPort() {
  asio::io_context context;
  return tcp::acceptor(context, loopback(0)).local_endpoint().port();
}

}  // namespace tarn::test

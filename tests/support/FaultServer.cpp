#include "support/FaultServer.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/ssl.hpp>
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

constexpr const char* lastModified = "Tue, 01 Jul 2025 10:00:00 GMT";

tcp::endpoint loopback(uint16_t port) {
  return {asio::ip::address_v4::loopback(), port};
}

struct Connection {
  tcp::socket socket;
  std::optional<asio::ssl::stream<tcp::socket&>> tls = {};
  std::thread thread = {};

  /// Does something with the stream that both ends talk over.
  auto over(const auto& work) { return tls ? work(*tls) : work(socket); }
};

bool send(Connection& connection, const auto& bytes) {
  error_code failure;
  connection.over([&](auto& stream) { asio::write(stream, asio::buffer(bytes), failure); });
  return !failure;
}

/// Reads the client's preface and its frames up to the first that holds a request (RFC 9113 3.4, 4.1).
bool receiveOverHTTP2(Connection& connection) {
  std::string preface(24, '\0');
  std::array<uint8_t, 9> frame{};
  error_code failure;
  const auto read = [&](auto& bytes) {
    connection.over([&](auto& stream) { asio::read(stream, asio::buffer(bytes), failure); });
    return !failure;
  };
  constexpr uint8_t headers = 1;
  if (!read(preface)) return false;
  while (read(frame)) {
    std::string payload(static_cast<size_t>(frame[0] << 16 | frame[1] << 8 | frame[2]), '\0');
    if (!read(payload)) return false;
    if (frame[3] == headers) return true;
  }
  return false;
}

int chooseHTTP2(SSL*, const unsigned char** chosen, unsigned char* length, const unsigned char*, unsigned, void*) {
  *chosen = reinterpret_cast<const unsigned char*>("h2");
  *length = 2;
  return SSL_TLSEXT_ERR_OK;
}

ReceivedRequest received(const http::request<http::empty_body>& message) {
  ReceivedRequest request{message.target(), {}};
  for (const auto& field : message) {
    std::string name(field.name_string());
    std::ranges::transform(name, name.begin(), [](unsigned char c) { return std::tolower(c); });
    request.headers[name] = field.value();
  }
  return request;
}

/// The part of the file that an answer sends.
struct Selection {
  int status;
  uint64_t offset;
  uint64_t length;
  std::string contentRange;
};

/// Open-ended ranges only ("bytes=N-"), which is what a resuming client sends.
Selection select(const ReceivedRequest& request, const ServedFile& file, const Reply& reply) {
  const uint64_t size = file.bytes->size();
  const std::string range = request.header("range");
  const std::string condition = request.header("if-range");
  const bool isOtherVersion = !condition.empty() && condition != file.etag && condition != lastModified;
  if (range.empty() || reply.ignoresRange || (isOtherVersion && !reply.ignoresIfRange)) return {200, 0, size, {}};

  const auto asked = static_cast<int64_t>(std::stoull(range.substr(std::string("bytes=").size())));
  const auto offset = static_cast<uint64_t>(asked + reply.rangeShift);
  if (offset >= size) return {416, 0, 0, reply.contentRange.value_or(fmt::format("bytes */{}", size))};
  const auto truth = fmt::format("bytes {}-{}/{}", offset, size - 1, size);
  return {206, offset, size - offset, reply.contentRange.value_or(truth)};
}

std::string headOf(const ServedFile& file, const Selection& selection, const Reply& reply) {
  std::string head =
      fmt::format("HTTP/1.1 {} -\r\nDate: {:%a, %d %b %Y %T} GMT\r\nAccept-Ranges: bytes\r\nContent-Type: {}\r\n",
                  selection.status, fmt::gmtime(std::chrono::system_clock::now()), reply.contentType);
  const bool isLie = reply.statedLength && selection.status == 200;
  const std::pair<const char*, std::string> fields[] = {
      {"ETag", reply.omitsValidators ? "" : file.etag},
      {"Last-Modified", reply.omitsValidators ? "" : lastModified},
      {"Content-Range", selection.contentRange},
      {"Content-Disposition", reply.disposition},
      {"Content-Encoding", reply.contentEncoding},
      {"Transfer-Encoding", reply.chunked ? "chunked" : ""},
      {"Connection", reply.omitsLength ? "close" : ""},
      {"Content-Length",
       reply.chunked || reply.omitsLength ? "" : std::to_string(isLie ? *reply.statedLength : selection.length)}};
  for (const auto& [name, value] : fields) {
    if (!value.empty()) head += fmt::format("{}: {}\r\n", name, value);
  }
  return head + reply.fields + "\r\n";
}

}  // namespace

ServedFile ServedFile::of(Bytes bytes) {
  return {std::make_shared<const Bytes>(std::move(bytes))};
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

struct FaultServer::Core {
  struct Served {
    ServedFile file;
    std::vector<Reply> replies;
    Reply afterwards;
    size_t count = 0;  ///< requests so far
  };
  asio::io_context context;
  std::optional<asio::ssl::context> tls;
  const bool speaksHTTP2;
  tcp::acceptor acceptor;
  const uint16_t port;
  std::atomic<bool> isStopped = false;
  std::atomic<bool> isReleased = false;
  std::list<Connection> connections;  ///< of the thread, as long as it runs
  std::atomic<size_t> openConnections = 0;
  std::mutex mutex;  ///< for the two below
  std::map<std::string, Served> paths;
  std::vector<ReceivedRequest> requests;
  std::thread thread;

  Core(uint16_t wanted, const std::map<std::string, ServedFile>& files, const std::optional<ServerTLS>& secured)
      : speaksHTTP2(secured && secured->speaksHTTP2),
        acceptor(context, loopback(wanted)),
        port(acceptor.local_endpoint().port()) {
    if (secured) {
      tls.emplace(asio::ssl::context::tls_server);
      tls->use_certificate_file(secured->certificate, asio::ssl::context::pem);
      tls->use_private_key_file(secured->key, asio::ssl::context::pem);
      if (speaksHTTP2) SSL_CTX_set_alpn_select_cb(tls->native_handle(), &chooseHTTP2, nullptr);
    }
    for (const auto& [path, file] : files) paths[path] = {file, {}, {}};
    ::setenv("no_proxy", "127.0.0.1", 1);
    thread = std::thread([this] { accept(); });
  }

  ~Core() {
    isStopped = true;
    ::shutdown(acceptor.native_handle(), SHUT_RDWR);
    thread.join();
    for (auto& connection : connections) ::shutdown(connection.socket.native_handle(), SHUT_RDWR);
    for (auto& connection : connections) connection.thread.join();
  }

  void accept() {
    while (!isStopped) {
      error_code failure;
      tcp::socket socket = acceptor.accept(failure);
      if (failure) continue;
      auto& connection = connections.emplace_back(Connection{std::move(socket)});
      connection.thread = std::thread([this, &connection] { converse(connection); });
    }
  }

  void converse(Connection& connection) {
    ++openConnections;
    boost::beast::flat_buffer buffer;
    error_code ended;
    if (tls) connection.tls.emplace(connection.socket, *tls).handshake(asio::ssl::stream_base::server, ended);
    if (speaksHTTP2) {
      if (!ended && receiveOverHTTP2(connection)) answer(connection, {"/file", {}});
      connection.socket.shutdown(tcp::socket::shutdown_send, ended);
      std::array<char, 1024> ignored{};
      while (!ended) connection.socket.read_some(asio::buffer(ignored), ended);  // else it could not write either
    } else {
      for (bool goesOn = !ended; goesOn && !isStopped;) {
        http::request<http::empty_body> message;
        connection.over([&](auto& stream) { http::read(stream, buffer, message, ended); });
        goesOn = !ended && answer(connection, received(message));
      }
    }
    connection.socket.shutdown(tcp::socket::shutdown_both, ended);
    --openConnections;
  }

  /// False when the connection is to be closed.
  bool answer(Connection& connection, const ReceivedRequest& request) {
    const auto [file, reply] = next(request);
    if (!reply.raw.empty()) return sendRaw(connection, reply);
    if (!file || reply.status) {
      const int status = reply.status.value_or(404);
      const std::string page = fmt::format("<html><body>{}</body></html>", status);
      const std::string location = reply.location.empty() ? "" : fmt::format("Location: {}\r\n", reply.location);
      return send(connection, fmt::format("HTTP/1.1 {} -\r\nContent-Length: {}\r\n{}{}\r\n{}", status, page.size(),
                                          location, reply.fields, page));
    }
    const Selection selection = select(request, *file, reply);
    const bool goesOn = send(connection, headOf(*file, selection, reply)) &&
                        sendBody(connection, *file, selection, reply) && !reply.omitsLength && !reply.statedLength;
    error_code ended;
    if (!goesOn && connection.tls && !reply.closeAfter) connection.tls->shutdown(ended);
    return goesOn;
  }

  bool sendRaw(Connection& connection, const Reply& reply) {
    std::string block = reply.endless;
    while (!block.empty() && reply.pause.count() == 0 && block.size() < 32 * 1024) block += block;
    bool goesOn = send(connection, reply.raw);
    while (goesOn && !block.empty() && !isStopped) {
      goesOn = send(connection, block);
      std::this_thread::sleep_for(reply.pause);
    }
    return false;
  }

  bool sendBody(Connection& connection, const ServedFile& file, const Selection& selection, const Reply& reply) {
    constexpr uint64_t largestPiece = 256UL * 1024;
    constexpr uint64_t piecesPerSecond = 20;
    const uint64_t pace = reply.bytesPerSecond / piecesPerSecond;
    const uint64_t end = std::min(selection.length, reply.closeAfter.value_or(UINT64_MAX));
    const uint64_t stall = std::min(end, reply.stallAfter.value_or(UINT64_MAX));
    ByteView piece;
    for (uint64_t sent = 0; !isStopped; sent += piece.size()) {
      if (sent == stall && reply.stallAfter && !waitForRelease(connection.socket)) return false;
      if (sent == end) break;
      const uint64_t left = (sent < stall ? stall : end) - sent;
      piece = ByteView(*file.bytes).subspan(selection.offset + sent, std::min(left, pace ? pace : largestPiece));
      if (reply.chunked && !send(connection, fmt::format("{:x}\r\n", piece.size()))) return false;
      if (!send(connection, piece) || (reply.chunked && !send(connection, std::string("\r\n")))) return false;
      if (pace) std::this_thread::sleep_for(std::chrono::milliseconds(1000 / piecesPerSecond));
    }
    if (isStopped || reply.closeAfter) return false;
    return !reply.chunked || send(connection, std::string("0\r\n\r\n"));
  }

  /// False when the client leaves first.
  bool waitForRelease(tcp::socket& socket) const {
    pollfd source{socket.native_handle(), POLLIN, 0};
    while (!isReleased && ::poll(&source, 1, 5) == 0) continue;
    return isReleased;
  }

  std::pair<std::optional<ServedFile>, Reply> next(const ReceivedRequest& request) {
    std::lock_guard guard(mutex);
    requests.push_back(request);
    const auto found = paths.find(request.target);
    if (found == paths.end()) return {};
    auto& [file, replies, afterwards, count] = found->second;
    const Reply& reply = count < replies.size() ? replies[count++] : afterwards;
    return {reply.file.value_or(file), reply};
  }
};

FaultServer::FaultServer(uint16_t port, const std::map<std::string, ServedFile>& files,
                         const std::optional<ServerTLS>& tls)
    : core_(std::make_unique<Core>(port, files, tls)) {}

FaultServer::~FaultServer() = default;

std::string FaultServer::url(const std::string& path) const {
  return fmt::format("{}://127.0.0.1:{}{}", core_->tls ? "https" : "http", core_->port, path);
}

void FaultServer::serve(const std::string& path, ServedFile file, std::vector<Reply> replies, Reply afterwards) {
  std::lock_guard guard(core_->mutex);
  core_->paths[path] = {std::move(file), std::move(replies), std::move(afterwards)};
}

void FaultServer::release() {
  core_->isReleased = true;
}

size_t FaultServer::openConnections() const {
  return core_->openConnections;
}

std::vector<ReceivedRequest> FaultServer::requests() const {
  std::lock_guard guard(core_->mutex);
  return core_->requests;
}

uint16_t FaultServer::closedPort() {
  asio::io_context context;
  return tcp::acceptor(context, loopback(0)).local_endpoint().port();
}

}  // namespace tarn::test

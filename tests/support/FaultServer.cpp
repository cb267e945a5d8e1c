#include "support/FaultServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

namespace tarn::test {
namespace {

class Socket {
 public:
  explicit Socket(int descriptor) : descriptor_(descriptor) {
    if (descriptor < 0) throw std::runtime_error("no socket");
  }
  ~Socket() { ::close(descriptor_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int descriptor() const { return descriptor_; }
  void shutdown() const { ::shutdown(descriptor_, SHUT_RDWR); }

  bool send(std::string_view text) const { return send(bytesOf(text)); }
  bool send(ByteView bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes = bytes.subspan(static_cast<size_t>(sent));
    }
    return true;
  }

  /// Appends what comes next; false at the end.
  bool receive(std::string& text) const {
    char buffer[4096];
    const ssize_t count = ::recv(descriptor_, buffer, sizeof buffer, 0);
    if (count > 0) text.append(buffer, static_cast<size_t>(count));
    return count > 0;
  }

 private:
  int descriptor_;
};

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

uint16_t bindTo(const Socket& socket, uint16_t port) {
  const int on = 1;
  ::setsockopt(socket.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address = loopback(port);
  socklen_t length = sizeof address;
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (::bind(socket.descriptor(), plain, length) != 0 || ::getsockname(socket.descriptor(), plain, &length) != 0) {
    throw std::runtime_error(fmt::format("cannot bind port {}", port));
  }
  return ntohs(address.sin_port);
}

std::string httpDate() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[64];
  return {text, std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts)};
}

/// Takes one request from the front of `text`.
std::optional<ReceivedRequest> takeRequest(std::string& text) {
  const size_t end = text.find("\r\n\r\n");
  if (end == std::string::npos) return std::nullopt;
  ReceivedRequest request;
  size_t lineEnd = text.find("\r\n");
  const std::string first = text.substr(0, lineEnd);
  const size_t blank = first.find(' ');
  request.method = first.substr(0, blank);
  request.target = first.substr(blank + 1, first.rfind(' ') - blank - 1);
  while (lineEnd < end) {
    const size_t start = lineEnd + 2;
    lineEnd = text.find("\r\n", start);
    const std::string line = text.substr(start, lineEnd - start);
    const size_t colon = line.find(':');
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    request.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
  }
  text.erase(0, end + 4);
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

}  // namespace

ServedFile ServedFile::of(Bytes bytes) {
  ServedFile file;
  file.size = bytes.size();
  file.fill = [bytes = std::move(bytes)](uint64_t offset, std::span<uint8_t> target) {
    std::copy_n(bytes.begin() + static_cast<ptrdiff_t>(offset), target.size(), target.begin());
  };
  return file;
}

ServedFile ServedFile::zeros(uint64_t size) {
  ServedFile file;
  file.size = size;
  file.fill = [](uint64_t, std::span<uint8_t> target) { std::fill(target.begin(), target.end(), uint8_t{0}); };
  return file;
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
  explicit Core(uint16_t port) : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    port_ = bindTo(listener_, port);
    if (::listen(listener_.descriptor(), 64) != 0) throw std::runtime_error("cannot listen");
    acceptor_ = std::thread([this] { accept(); });
  }

  ~Core() {
    stopped_ = true;
    listener_.shutdown();
    acceptor_.join();
    for (const auto& connection : connections_) connection.socket->shutdown();
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
    std::unique_ptr<Socket> socket;
    std::thread thread;
  };

  void accept() {
    while (!stopped_) {
      const int descriptor = ::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
      if (descriptor < 0) continue;
      auto& connection = connections_.emplace_back();  // used by others after this thread has been joined
      connection.socket = std::make_unique<Socket>(descriptor);
      connection.thread = std::thread([this, &socket = *connection.socket] { converse(socket); });
    }
  }

  void converse(const Socket& socket) {
    std::string received;
    do {
      auto request = takeRequest(received);
      if (request && !answer(socket, *request)) break;
      if (request) continue;
      if (!socket.receive(received)) break;
    } while (!stopped_);
    socket.shutdown();
  }

  /// False when the connection is to be closed.
  bool answer(const Socket& socket, const ReceivedRequest& request) {
    const auto [file, reply] = next(request);
    if (!file || reply.status) return answerPage(socket, request, reply, reply.status.value_or(404));

    const Selection selection = select(request, *file, reply);
    std::string head = fmt::format("HTTP/1.1 {} -\r\nDate: {}\r\nAccept-Ranges: bytes\r\nContent-Type: {}\r\n",
                                   selection.status, httpDate(), file->contentType);
    if (!reply.omitsValidators) {
      if (!file->etag.empty()) head += fmt::format("ETag: {}\r\n", file->etag);
      if (!file->lastModified.empty()) head += fmt::format("Last-Modified: {}\r\n", file->lastModified);
    }
    if (!selection.contentRange.empty()) head += fmt::format("Content-Range: {}\r\n", selection.contentRange);
    if (reply.chunked) {
      head += "Transfer-Encoding: chunked\r\n";
    } else if (!reply.omitsLength) {
      const bool isLie = reply.statedLength && selection.status == 200;
      head += fmt::format("Content-Length: {}\r\n", isLie ? *reply.statedLength : selection.length);
    } else {
      head += "Connection: close\r\n";
    }
    if (!socket.send(head + "\r\n")) return false;
    if (request.method == "HEAD") return true;
    return sendBody(socket, *file, selection, reply) && !reply.omitsLength && !reply.statedLength;
  }

  bool answerPage(const Socket& socket, const ReceivedRequest& request, const Reply& reply, int status) {
    const std::string page = fmt::format("<html><body>{}</body></html>", status);
    std::string head = fmt::format("HTTP/1.1 {} -\r\nContent-Length: {}\r\n", status, page.size());
    if (!reply.location.empty()) head += fmt::format("Location: {}\r\n", reply.location);
    return socket.send(head + "\r\n" + (request.method == "HEAD" ? "" : page));
  }

  bool sendBody(const Socket& socket, const ServedFile& file, const Selection& selection, const Reply& reply) {
    constexpr uint64_t largestPiece = 256UL * 1024;
    constexpr uint64_t piecesPerSecond = 20;
    const uint64_t pace = reply.bytesPerSecond / piecesPerSecond;
    const uint64_t cut = std::min(reply.closeAfter.value_or(UINT64_MAX), reply.stallAfter.value_or(UINT64_MAX));
    const uint64_t end = std::min(selection.length, cut);
    Bytes piece;
    for (uint64_t sent = 0; sent < end && !stopped_; sent += piece.size()) {
      piece.resize(std::min(end - sent, pace ? std::max<uint64_t>(pace, 1) : largestPiece));
      file.fill(selection.offset + sent, piece);
      if (reply.chunked && !socket.send(fmt::format("{:x}\r\n", piece.size()))) return false;
      if (!socket.send(piece) || (reply.chunked && !socket.send("\r\n"))) return false;
      if (pace) std::this_thread::sleep_for(std::chrono::milliseconds(1000 / piecesPerSecond));
    }
    if (reply.stallAfter) {
      std::string ignored;
      while (socket.receive(ignored)) continue;
    }
    if (stopped_ || reply.closeAfter || reply.stallAfter) return false;
    return !reply.chunked || socket.send("0\r\n\r\n");
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

  Socket listener_;
  uint16_t port_ = 0;
  std::atomic<bool> stopped_ = false;
  std::thread acceptor_;
  std::list<Connection> connections_;  ///< of the acceptor, as long as it runs
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
  const Socket socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return bindTo(socket, 0);
}

}  // namespace tarn::test

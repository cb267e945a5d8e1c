#include "serve/BridgeServer.h"

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <cctype>
#include <charconv>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "platform/Error.h"
#include "platform/Log.h"
#include "platform/UTF8.h"
#include "serve/HomeToken.h"
#include "serve/detail/HostDesk.h"
#include "serve/detail/HostRoutes.h"
#include "serve/detail/HostScript.h"
#include "serve/detail/LocalDrop.h"
#include "serve/detail/LoopbackPort.h"
#include "serve/detail/RequestBody.h"
#include "serve/detail/RequestCheck.h"
#include "serve/detail/ServerParts.h"
#include "serve/detail/Site.h"

namespace tarn {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using tcp = asio::ip::tcp;
using boost::system::error_code;
using Request = http::request<http::empty_body>;
using std::chrono::steady_clock;

namespace {

constexpr size_t mostConnections = 64;
constexpr size_t largestHead = 8 << 10;
constexpr size_t largestFrame = 1 << 20;
constexpr int sendBuffer = 256 << 10;  // bytes; without it the system keeps megabytes for a page that does not read
constexpr size_t pieceSize = 64 << 10;
constexpr size_t mostDrained = 4 << 20;
constexpr std::chrono::seconds headTime{5};
constexpr std::chrono::seconds pieceTime{30};
constexpr std::chrono::seconds idleTime{30};
constexpr std::chrono::seconds drainTime{1};
constexpr std::chrono::milliseconds acceptPause{100};

/// A page's WebSocket.
class PageSocket : public QueuedConnection {
 public:
  using Stream = websocket::stream<beast::tcp_stream>;

  explicit PageSocket(beast::tcp_stream stream) : stream_(std::move(stream)) {
    beast::tcp_stream& connection = beast::get_lowest_layer(stream_);
    connection.expires_never();
    connection.socket().set_option(tcp::socket::send_buffer_size(sendBuffer));
    websocket::stream_base::timeout times{
        .handshake_timeout = headTime, .idle_timeout = idleTime, .keep_alive_pings = true};
    stream_.set_option(times);
    stream_.set_option(websocket::stream_base::decorator([](websocket::response_type& answer) {
      for (const auto& [name, value] : commonFields()) answer.set(name, value);
    }));
    stream_.read_message_max(largestFrame);
  }

  Stream& stream() { return stream_; }

 private:
  asio::any_io_executor executor() override { return stream_.get_executor(); }

  asio::awaitable<bool> write(const PageText& text) override {
    const auto bytes = asio::buffer(*text);
    const auto [failure, count] = co_await stream_.async_write(bytes, quietly);
    co_return !failure;
  }

  void closeSocket() override { beast::get_lowest_layer(stream_).close(); }

  Stream stream_;
};

RequestHead headOf(const Request& request) {
  RequestHead head{.method = request.method_string(), .target = request.target()};
  for (const auto& field : request) {
    head.fields.emplace_back(lowered(field.name_string()), field.value());
  }
  return head;
}

/// What to say to a request that could not be read; nothing when nobody listens any more.
std::optional<SiteAnswer> answerToUnreadable(error_code failure) {
  if (failure == http::error::header_limit || failure == http::error::buffer_overflow) {
    return SiteAnswer::words(431, "The request's head is too large.");
  }
  const bool isGone = failure == http::error::end_of_stream || failure == http::error::partial_message;
  if (isGone || failure.category() != http::make_error_code(http::error::bad_target).category()) return std::nullopt;
  return SiteAnswer::words(400, "The request cannot be read.");
}

SiteAnswer answerOf(const Refusal& refusal) {
  SiteAnswer answer = SiteAnswer::words(refusal.status, refusal.words);
  if (!refusal.location.empty()) answer.fields.emplace_back("Location", refusal.location);
  return answer;
}

HostFacts factsOf(const CAPPlugin& host, const Path& logFile) {
  HostFacts facts{.name = host.jsName(), .log = logFile.string()};
  for (const CAPPluginMethod& method : host.pluginMethods()) facts.methods.push_back(method.name);
  return facts;
}

/// Nothing when the socket's parameters are not as a page sends them.
std::optional<PageGreeting> parseGreeting(const RequestTarget& target) {
  PageGreeting greeting{.page = target.parameter("page"), .epoch = target.parameter("epoch")};
  const std::string seen = target.parameter("seq");
  const auto number = std::from_chars(seen.data(), seen.data() + seen.size(), greeting.lastSeen);
  const bool isPlain = std::ranges::all_of(greeting.page, [](unsigned char c) { return std::isalnum(c) || c == '-'; });
  const bool isGood = isPlain && !greeting.page.empty() && greeting.page.size() <= 64 && number.ec == std::errc() &&
                      number.ptr == seen.data() + seen.size();
  return isGood ? std::optional(std::move(greeting)) : std::nullopt;
}

}  // namespace

class BridgeServer::Core {
 public:
  Core(FileManager& files, PHPhotoLibrary& photos, CAPPlugin& plugin, CAPPlugin& host, const Settings& settings,
       LifeHandler onLife)
      : onLife_(std::move(onLife)),
        host_(host),
        site_(files, photos, settings.webFolder,
              hostScript(plugin, pageKey(settings.token), factsOf(host, settings.logFile))),
        port_(context_, settings.port),
        lifeTimer_(context_),
        check_(port_.number(), settings.token),
        hub_(plugin.jsName(), makeUUID(), steady_clock::now(),
             [this](const std::string& page, PageCommand command) { commands_.run(page, std::move(command)); }),
        commands_({&plugin}, mailbox_,
                  [this](const std::string& page, const std::string& id, const auto& answer) {
                    hub_.answer(page, id, answer);
                  }),
        desk_(host, files, mailbox_, context_),
        drop_(files, settings.localFolder) {
    for (tcp::acceptor* acceptor : port_.acceptors()) asio::co_spawn(context_, listen(*acceptor), logFailure);
    asio::post(context_, [this] { updateLife(); });
    thread_ = std::thread([this] { context_.run(); });
    host_.setEventListener([this](const std::string& event, const JSObject& data) {
      mailbox_->post([this, event, data] { hub_.sendEventOf(host_.jsName(), event, data); });
    });
  }

  ~Core() {
    host_.setEventListener({});
    mailbox_->close();
    asio::post(context_, [this] { stop(); });
    thread_.join();
  }

  const RequestCheck& check() const { return check_; }

  void sendEvent(const std::string& name, const JSObject& data) {
    mailbox_->post([this, name, data] { hub_.sendEvent(name, data); });
  }

 private:
  /// Ends all that the thread waits for, so that its loop runs out of work.
  void stop() {
    isStopping_ = true;
    port_.close();
    lifeTimer_.cancel();
    desk_.stop();
    for (const auto& close : live_) close();
  }

  asio::awaitable<void> listen(tcp::acceptor& acceptor) {
    asio::steady_timer pause(context_);
    for (;;) {
      auto [failure, socket] = co_await acceptor.async_accept(quietly);
      if (isStopping_) co_return;
      if (failure) {  // no descriptor is free
        pause.expires_after(acceptPause);
        co_await pause.async_wait(quietly);
      } else if (makeRoom()) {
        asio::co_spawn(context_, converse(std::move(socket)), logFailure);
      }
    }
  }

  /// When all connections are in use, the oldest of those that have not shown that they may ask gives way: who only
  /// holds connections open keeps no page out. False if there is none.
  bool makeRoom() {
    if (live_.size() < mostConnections) return true;
    const auto oldest = std::ranges::find_if(strangers_, [](const auto& close) { return close != nullptr; });
    if (oldest == strangers_.end()) return false;
    std::exchange(*oldest, nullptr)();
    return true;
  }

  /// One request and its answer, or one page's whole life.
  asio::awaitable<void> converse(tcp::socket socket) {
    if (isStopping_) co_return;
    beast::tcp_stream stream(std::move(socket));
    Live live(live_, [&stream] { stream.close(); });
    std::optional<Live> stranger(std::in_place, strangers_, [&stream] { stream.close(); });
    beast::flat_buffer buffer(largestHead);
    http::request_parser<http::empty_body> parser;
    parser.header_limit(largestHead);
    parser.body_limit(boost::none);  // no body is read by the parser
    stream.expires_after(headTime);
    const auto [failure, count] = co_await http::async_read_header(stream, buffer, parser, quietly);
    if (failure) {
      auto answer = answerToUnreadable(failure);
      if (answer) co_await send(stream, *answer);
      co_return;
    }
    const RequestHead head = headOf(parser.get());
    const auto target = RequestTarget::parse(head.target);
    const auto inside = target ? check_.inside(*target) : std::nullopt;
    const bool isSocket = inside && inside->path == "/bridge/socket";
    auto refusal = refuse(head, target, inside, isSocket);
    const RequestBody body{.length = lengthOf(parser),
                           .isChunked = parser.chunked(),
                           .arrived = static_cast<size_t>(buffer.size()),
                           .largest = inside ? HostRoutes::largestBody(inside->path) : 0};
    if (!refusal) refusal = refuseBody(head, body, inside);
    if (!refusal) stranger.reset();
    if (refusal) {
      if (head.method == "HEAD") refusal->text.clear();
      co_await send(stream, *refusal);
    } else if (isSocket) {
      auto page = std::make_shared<PageSocket>(std::move(stream));
      live.closeBy([page] { page->close(); });
      const Request request = parser.release();
      const auto greeting = parseGreeting(*target);
      co_await talk(*page, request, *greeting);
    } else {
      auto answering = answerTo(head, *target, inside, stream, buffer, body.length.value_or(0));
      auto answer = co_await std::move(answering);
      if (answer) co_await send(stream, *answer);
    }
  }

  /// Nothing when the browser has gone.
  asio::awaitable<std::optional<SiteAnswer>> answerTo(const RequestHead& head, const RequestTarget& target,
                                                      const std::optional<RequestTarget>& inside,
                                                      beast::tcp_stream& stream, beast::flat_buffer& buffer,
                                                      uint64_t bodySize) {
    if (head.method == "GET") {
      auto getting = get(head, target, inside);
      co_return co_await std::move(getting);
    }
    auto changing = head.method == "PUT" ? takeIn(stream, buffer, *inside, bodySize)
                                         : change(stream, buffer, *inside, static_cast<size_t>(bodySize));
    co_return co_await std::move(changing);
  }

  static std::optional<uint64_t> lengthOf(const http::request_parser<http::empty_body>& parser) {
    const auto length = parser.content_length();
    return length ? std::optional<uint64_t>(*length) : std::nullopt;
  }

  std::optional<SiteAnswer> refuse(const RequestHead& head, const std::optional<RequestTarget>& target,
                                   const std::optional<RequestTarget>& inside, bool isSocket) const {
    if (!target) return SiteAnswer::words(400, "The request's target cannot be read.");
    const auto methods = inside ? HostRoutes::allowedMethods(inside->path) : std::vector<std::string_view>{"GET"};
    if (const auto refusal = check_.refuse(head, *target, isSocket, methods)) {
      SiteAnswer answer = answerOf(*refusal);
      if (refusal->status == 405) answer.fields.emplace_back("Allow", fmt::format("{}", fmt::join(methods, ", ")));
      return answer;
    }
    if (!isSocket) return std::nullopt;
    if (!beast::iequals(head.field("upgrade").value_or(""), "websocket")) {
      SiteAnswer answer = SiteAnswer::words(426, "This is the address of the WebSocket.");
      answer.fields.emplace_back("Upgrade", "websocket");
      return answer;
    }
    if (!parseGreeting(*target)) return SiteAnswer::words(400, "\"page\", \"epoch\" and \"seq\" are needed.");
    return std::nullopt;
  }

  std::optional<SiteAnswer> refuseBody(const RequestHead& head, const RequestBody& body,
                                       const std::optional<RequestTarget>& inside) const {
    auto refusal = body.refuse(head);
    if (!refusal && head.method == "PUT") refusal = HostRoutes::refuseLocal(*inside);
    if (!refusal && head.method == "PUT") refusal = drop_.refuse(*body.length);
    return refusal ? std::optional(answerOf(*refusal)) : std::nullopt;
  }

  /// Does what a page asks the host to do.
  asio::awaitable<std::optional<SiteAnswer>> change(beast::tcp_stream& stream, beast::flat_buffer& buffer,
                                                    RequestTarget target, size_t size) {
    std::string body = beast::buffers_to_string(buffer.cdata());
    const size_t arrived = body.size();
    body.resize(size);
    const auto rest = asio::buffer(body) + arrived;
    stream.expires_after(headTime);
    const auto [failure, count] = co_await asio::async_read(stream, rest, quietly);
    if (failure) co_return std::nullopt;
    stream.expires_never();
    auto call = HostRoutes::callFor("POST", target, body);
    if (const auto* refusal = std::get_if<Refusal>(&call)) co_return answerOf(*refusal);
    auto answering = desk_.answer(std::get<HostCall>(std::move(call)));
    SiteAnswer answer = co_await std::move(answering);
    co_return answer;
  }

  /// Takes a file of the browser's machine in and gives it to the host.
  asio::awaitable<std::optional<SiteAnswer>> takeIn(beast::tcp_stream& stream, beast::flat_buffer& buffer,
                                                    RequestTarget target, uint64_t size) {
    std::optional<Path> file;
    try {
      auto receiving = drop_.receive(stream, buffer, size);
      file = co_await std::move(receiving);
    } catch (const Error& failure) {
      log("A file of a page cannot be kept: {}", failure.description());
      co_return SiteAnswer::words(507, "The file cannot be kept; the log says why.");
    }
    if (!file) co_return std::nullopt;
    stream.expires_never();
    auto answering = desk_.answer({.method = "importLocal",
                                   .options = {{"path", file->string()},
                                               {"filename", target.parameter("filename")},
                                               {"album", target.parameter("album")}}});
    SiteAnswer answer = co_await std::move(answering);
    if (answer.status != 200) drop_.discard(*file);
    co_return answer;
  }

  asio::awaitable<SiteAnswer> get(const RequestHead& head, const RequestTarget& target,
                                  const std::optional<RequestTarget>& inside) {
    const Door door = RequestCheck::door(target);
    if (door == Door::entry) co_return letIn(contentType("index.html"), entryPage(check_.base()));
    if (door == Door::rejoin) co_return rejoin(target);
    if (HostRoutes::isAsked(inside->path)) {
      auto call = HostRoutes::callFor("GET", *inside, {});
      if (const auto* refusal = std::get_if<Refusal>(&call)) co_return answerOf(*refusal);
      auto answering = desk_.answer(std::move(std::get<HostCall>(call)));
      co_return co_await std::move(answering);
    }
    auto work = read(head, *inside);
    if (!Site::asksLibrary(*inside)) co_return co_await std::move(work);
    co_return co_await asio::co_spawn(libraryPool_, std::move(work), asio::use_awaitable);
  }

  SiteAnswer letIn(const std::string& type, std::string text) const {
    return {.fields = {{"Content-Type", type}, {"Set-Cookie", check_.cookie()}}, .text = std::move(text)};
  }

  /// A page of an earlier start gets the cookie of this one for its proof, and the challenge for it before.
  SiteAnswer rejoin(const RequestTarget& target) const {
    const std::string type = contentType("rejoin.json");
    if (RequestCheck::hasProof(target)) return letIn(type, JSObject{{"path", check_.base()}}.json());
    return {.fields = {{"Content-Type", type}}, .text = JSObject{{"challenge", check_.challenge()}}.json()};
  }

  asio::awaitable<SiteAnswer> read(const RequestHead& head, const RequestTarget& target) const {
    try {
      co_return site_.answer(head, target);
    } catch (const std::exception& failure) {
      log("GET {} failed: {}", target.path, failure.what());
    }
    co_return SiteAnswer::words(500, "This cannot be read just now; the log says why.");
  }

  /// Sends the answer and ends the connection, once the browser has had the time to read it.
  static asio::awaitable<void> send(beast::tcp_stream& stream, SiteAnswer& answer) {
    http::response<http::empty_body> head(static_cast<http::status>(answer.status), 11);
    for (const auto& [name, value] : commonFields()) head.set(name, value);
    for (const auto& [name, value] : answer.fields) head.set(name, value);
    head.keep_alive(false);
    if (answer.status != 204) head.content_length(answer.length());
    http::response_serializer<http::empty_body> serializer(head);
    stream.expires_after(pieceTime);
    auto [failure, count] = co_await http::async_write_header(stream, serializer, quietly);
    Bytes piece(answer.text.begin(), answer.text.end());
    uint64_t left = answer.length();
    while (!failure && left > 0) {
      if (answer.file) piece = answer.file->read(static_cast<size_t>(std::min<uint64_t>(left, pieceSize)));
      if (piece.empty()) co_return;  // the file has become shorter: a closed connection says so
      left -= piece.size();
      const auto bytes = asio::buffer(piece);
      stream.expires_after(pieceTime);
      std::tie(failure, count) = co_await asio::async_write(stream, bytes, quietly);
    }
    if (!failure) co_await drain(stream);
  }

  /// Closing a socket with bytes unread would take the answer back from a browser that is still sending.
  static asio::awaitable<void> drain(beast::tcp_stream& stream) {
    error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream.expires_after(drainTime);
    Bytes scratch(pieceSize);
    const auto target = asio::buffer(scratch);
    for (size_t drained = 0; drained < mostDrained;) {
      const auto [failure, count] = co_await stream.async_read_some(target, quietly);
      if (failure) co_return;
      drained += count;
    }
  }

  asio::awaitable<void> talk(PageSocket& page, const Request& request, const PageGreeting& greeting) {
    const auto [refused] = co_await page.stream().async_accept(request, quietly);
    if (refused) co_return;
    hub_.connect(greeting, page.shared_from_this());
    beast::flat_buffer buffer;
    for (;;) {
      const auto [failure, count] = co_await page.stream().async_read(buffer, quietly);
      if (failure) break;
      const auto bytes = buffer.cdata();
      hub_.receive(greeting.page, page, {static_cast<const char*>(bytes.data()), bytes.size()});
      buffer.clear();
      updateLife();
    }
    hub_.disconnect(greeting.page, page, steady_clock::now());
    page.close();  // a message that waits for a reader would keep it
    updateLife();
  }

  /// Tells when the pages have sent the application to the foreground or the background.
  void updateLife() {
    if (isStopping_) return;
    const auto now = steady_clock::now();
    const bool isActive = hub_.presence().isActive(now);
    if (std::exchange(isActive_, isActive) != isActive) onLife_(isActive);
    lifeTimer_.cancel();
    const auto next = hub_.presence().nextChange(now);
    if (!next) return;
    lifeTimer_.expires_at(*next);
    lifeTimer_.async_wait([this](error_code cancelled) {
      if (!cancelled) updateLife();
    });
  }

  const LifeHandler onLife_;
  CAPPlugin& host_;
  const Site site_;
  asio::thread_pool libraryPool_{1};

  // Used on the thread alone, but for posts to the context.
  asio::io_context context_{1};
  const std::shared_ptr<Mailbox> mailbox_ = std::make_shared<Mailbox>(context_);
  LoopbackPort port_;
  asio::steady_timer lifeTimer_;
  const RequestCheck check_;
  PageHub hub_;
  CommandWorker commands_;
  HostDesk desk_;
  LocalDrop drop_;
  LiveConnections live_;
  LiveConnections strangers_;  ///< of these, those that have not shown yet that they may ask; the oldest first
  bool isActive_ = true;
  bool isStopping_ = false;

  std::thread thread_;
};

BridgeServer::BridgeServer(FileManager& files, PHPhotoLibrary& photos, CAPPlugin& plugin, CAPPlugin& host,
                           const Settings& settings, LifeHandler onLife)
    : core_(std::make_unique<Core>(files, photos, plugin, host, settings, std::move(onLife))) {}

BridgeServer::~BridgeServer() = default;

std::string BridgeServer::entryAddress() const {
  return core_->check().entryAddress();
}

void BridgeServer::sendEvent(const std::string& name, const JSObject& data) {
  core_->sendEvent(name, data);
}

}  // namespace tarn

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <boost/algorithm/string/replace.hpp>

#include "RunningServer.h"
#include "platform/host/Descriptor.h"

namespace tarn::test {
namespace {

#ifdef TARN_SANITIZED
constexpr int64_t mostGrowth = 1024 << 10;  // what is freed is kept for a while
#else
constexpr int64_t mostGrowth = 192 << 10;  // KiB that the server's memory may grow by
#endif
constexpr const char* stillOpen = "(still open after a minute)";

std::string times(size_t count, const std::string& text) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all += text;
  return all;
}

/// An attacker's connection. What is sent goes out as it stands, and no wait is longer than a minute.
class Wire {
 public:
  explicit Wire(uint16_t port, int receiveBuffer = 0) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval minute{60, 0};
    for (const int wait : {SO_RCVTIMEO, SO_SNDTIMEO}) ::setsockopt(*socket_, SOL_SOCKET, wait, &minute, sizeof minute);
    if (receiveBuffer > 0) ::setsockopt(*socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    const asio::ip::tcp::endpoint server(asio::ip::address_v4::loopback(), port);
    EXPECT_EQ(::connect(*socket_, server.data(), static_cast<socklen_t>(server.size())), 0);
  }

  /// False when the server takes no more.
  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t count = ::send(*socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
  }

  void endSending() const { ::shutdown(*socket_, SHUT_WR); }

  void reset() {
    const linger atOnce{1, 0};
    ::setsockopt(*socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    socket_ = Descriptor();
  }

  /// What comes, up to these words and not a byte more; without words up to the end.
  std::string read(const std::string& words = "") const {
    std::string all, piece(words.empty() ? size_t{64 << 10} : size_t{1}, '\0');
    while (words.empty() || !all.ends_with(words)) {
      const ssize_t count = ::recv(*socket_, piece.data(), piece.size(), 0);
      if (count < 0 && errno == EAGAIN) return all + stillOpen;
      if (count <= 0) break;
      all.append(piece, 0, static_cast<size_t>(count));
    }
    return all;
  }

 private:
  Descriptor socket_;
};

constexpr int whole = 0x80;  ///< the last frame of a message

/// A frame as a client sends it, under a mask of zeros; `stated` is the length that it tells.
std::string frame(int first, const std::string& payload, uint64_t stated = 0, int mask = 0x80) {
  const uint64_t length = stated == 0 ? payload.size() : stated;
  const int bytes = length < 126 ? 0 : length < 65536 ? 2 : 8;
  const int second = bytes == 0 ? static_cast<int>(length) : bytes == 2 ? 126 : 127;
  std::string head{static_cast<char>(first), static_cast<char>(mask | second)};
  for (int i = bytes - 1; i >= 0; --i) head += static_cast<char>(length >> (8 * i));
  return head + std::string(mask == 0 ? 0 : 4, '\0') + payload;
}

std::string text(const std::string& payload) {
  return frame(whole | 1, payload);
}

/// Attacks on a running `tarn serve`. After each it answers a page as ever; at the end of all it has no descriptor more
/// than before, and not much more memory.
class AttacksTest : public RunningServer {
 protected:
  void TearDown() override {
    EXPECT_EQ(statusOf(get("")), 200) << "the page can be loaded";
    const std::string most = fact("VmHWM");
    EXPECT_LT(std::stoll(most), memory_ + mostGrowth);
    EXPECT_TRUE(eventually([this] { return descriptors() <= descriptors_; })) << descriptors() << " " << descriptors_;
    RecordProperty("attacks", attacks_);
    RecordProperty("memory", std::to_string(memory_) + " KiB, at most " + most);
    RunningServer::TearDown();
  }

  size_t descriptors() const {
    const fs::directory_iterator all("/proc/" + std::to_string(pid_) + "/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  }

  /// Puts in the fields that each row needs; "|" ends a line.
  std::string expanded(std::string row) const {
    const std::string upgrade =
        "Connection: Upgrade|Upgrade: websocket|Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==|Sec-WebSocket-Version: 13|";
    const std::pair<const char*, std::string> names[] = {
        {"{post}", "POST {base}history HTTP/1.1|{own}{origin}{json}"},
        {"{socket}", "{base}bridge/socket?page=p&epoch=&seq=0"},
        {"{upgrade}", upgrade},
        {"{json}", "Content-Type: application/json|"},
        {"{click}", "Sec-Fetch-Site: cross-site|Sec-Fetch-Mode: navigate|Sec-Fetch-Dest: "},
        {"{own}", "Host: {host}|Cookie: {cookie}|"},
        {"{origin}", "Origin: http://{host}|"},
        {"{host}", host_},
        {"{port}", std::to_string(port_)},
        {"{next}", std::to_string(port_ + 1)},
        {"{base}", base_},
        {"{token}", token_},
        {"{cookie}", cookie_},
        {"{secret}", cookie_.substr(cookie_.find('=') + 1)},
        {"|", "\r\n"}};
    for (const auto& [name, value] : names) boost::replace_all(row, name, value);
    return row;
  }

  /// What "status target|fields" asks for; the method is GET if none stands before the target.
  std::string request(const std::string& row) const {
    const size_t end = row.find('|');
    const std::string method = row.substr(4, end - 4).find(' ') == std::string::npos ? "GET " : "";
    const char* last = row.find("||") == std::string::npos ? "|" : "";
    return expanded(method + row.substr(4, end - 4) + " HTTP/1.1" + row.substr(end) + last);
  }

  /// Counts attacks, and asks what a page asks.
  void expectService(int attacks = 1) {
    attacks_ += attacks;
    EXPECT_EQ(statusOf(get("bridge/alive")), 204) << "the server goes on";
    std::string answer = limit();
    if (answer.empty() && hearsMuch_) {
      page_ = connect("rightful-" + std::to_string(attacks_));
      answer = limit();
    }
    EXPECT_THAT(answer, HasSubstr("\"limit\":"));
  }

  std::string limit() {
    page_->command("getDownloadLimit");
    return page_->next("\"queued\":");
  }

  std::string attack(const std::string& row) { return attack(std::stoi(row), request(row)); }

  /// The answer, which has the status.
  std::string attack(int status, const std::string& sent) {
    const Wire wire(port_);
    wire.send(sent);
    std::string answer = wire.read();
    SCOPED_TRACE(sent.substr(0, 300) + "\n" + answer.substr(0, 2000));
    EXPECT_EQ(statusOf(answer), status);
    for (const char* words : {"Access-Control", "unsafe", "nobody's", stillOpen}) {
      EXPECT_EQ(answer.find(words), std::string::npos) << words;
    }
    for (const char* words : {"Content-Security-Policy: default-src 'none'; script-src 'self';",
                              "X-Content-Type-Options: nosniff", "Cache-Control: no-store"}) {
      EXPECT_NE(answer.find(words), std::string::npos) << words;
    }
    expectService();
    return answer;
  }

  Wire pageWire(const std::string& page, int receiveBuffer = 0) const {
    Wire wire(port_, receiveBuffer);
    wire.send(request("101 {base}bridge/socket?epoch=&seq=0&page=" + page + "|{own}{origin}{upgrade}"));
    EXPECT_EQ(statusOf(wire.read("\r\n\r\n")), 101);
    return wire;
  }

  std::unique_ptr<PageClient> page_ = connect("rightful");
  bool hearsMuch_ = false;  ///< more than a slow machine may read in time: it is cut off then, and comes back
  const int64_t memory_ = std::stoll(fact("VmRSS"));
  size_t descriptors_ = descriptors();
  int attacks_ = 0;
};

TEST_F(AttacksTest, WhoMayNotAskIsRefused) {
  // clang-format off
  const char* rows[] = {
      "204 {base}bridge/alive|{own}{origin}Sec-Fetch-Site: same-origin|",
      "204 {base}bridge/alive|Host: {host}|Cookie: a=b; {cookie}|", "204 {base}favicon.ico|{own}",
      "403 {base}albums|{own}{origin}{origin}", "403 {base}albums|{own}Sec-Fetch-Site: cross-site|",
      "403 {base}albums|{own}Origin:|", "421 {base}albums|Host: {host}|{own}", "421 {base}albums|Cookie: {cookie}|",
      "421 {base}albums|Host: {host}| evil.example|Cookie: {cookie}|", "308 {base}albums|Host: localhost:{port}|",
      "308 {base}albums|Host: [::1]:{port}|",
      // The cookie and nothing else, in its place.
      "403 {base}albums|Host: {host}|", "403 {base}albums|Host: {host}|Authorization: Bearer {token}|",
      "403 {base}albums?token={token}|Host: {host}|", "403 {base}albums?{cookie}|Host: {host}|",
      "403 {base}albums|Host: {host}|Cookie: tarn-{port}={token}|", "403 {base}albums|Host: {host}|Cookie: {cookie}0|",
      "403 {base}albums|Host: {host}|Cookie: tarn-{port}=|",
      "403 {base}albums|Host: {host}|Cookie: tarn-1={secret}; x{cookie}; tarn-{port} ={secret}|",
      "403 /?token=0{token}|Host: {host}|", "403 /?token=|Host: {host}|",
      // Nothing is served elsewhere, whoever asks.
      "403 /albums|{own}", "403 /00000000000000000000000000000000/albums|{own}",
      // A page is sent by a click on the printed link, and by no other.
      "200 /?token={token}|Host: {host}|{click}document|", "403 /?token={token}|Host: {host}|{click}iframe|",
      "403 {base}|{own}{click}document|",
      // What changes something comes from a page of this origin, by the method that is meant for it.
      "403 POST {base}history|{own}{json}Content-Length: 2||{}",
      "403 POST {base}history|Host: {host}|{origin}{json}Content-Length: 2||{}",
      "403 PUT {base}local|{own}Content-Length: 2||{}", "405 PUT {base}history|{own}{origin}Content-Length: 2||{}",
      "405 get {base}albums|{own}{origin}", "405 HEAD {base}albums|{own}",
      "405 OPTIONS {base}albums|{own}{origin}Access-Control-Request-Method: PUT|",
      "405 POST {base}bridge/saveVideo|{own}{origin}", "405 POST {socket}|{own}{origin}{upgrade}",
      "405 {base}local|{own}",
      // So does a WebSocket.
      "403 {socket}|{own}{upgrade}", "403 {socket}|{own}Origin: http://evil.example|{upgrade}",
      "403 {socket}|Host: {host}|{origin}{upgrade}", "426 {socket}|{own}{origin}",
      "400 {socket}|{own}{origin}Upgrade: websocket|",
      "400 {base}bridge/socket?page=../p&epoch=&seq=0|{own}{origin}{upgrade}",
      "400 {base}bridge/socket?page=p&epoch=&seq=99999999999999999999|{own}{origin}{upgrade}",
      "413 {socket}|{own}{origin}{upgrade}|frames before the answer",
      // A page that rejoins proves that this home has served it.
      "200 /rejoin|Host: {host}|{origin}", "403 /rejoin|Host: {host}|Origin: http://evil.example|",
      "403 /rejoin?proof={secret}|Host: {host}|{origin}", "403 /rejoin?proof=|Host: {host}|{origin}"};
  // clang-format on
  for (const char* row : rows) attack(row);
  // Names that are pointed here, other ways to write an address, and origins that are nearly this one.
  for (const std::string& name : words("evil.example 127.0.0.1 127.0.0.1.:{port} 127.1:{port} 2130706433:{port} "
                                       "localhost:{next} LOCALHOST:{port} {host}.evil.example {host}@evil.example")) {
    attack("421 {base}albums|Host: " + name + "|Cookie: {cookie}|");
  }
  for (const std::string& from :
       words("null http://evil.example http://127.0.0.1:{next} http://localhost:{port} {host} "
             "https://{host} http://{host}/ http://{host}.evil.example http://evil.{host}")) {
    attack("403 {base}albums|{own}Origin: " + from + "|");
  }
}

TEST_F(AttacksTest, WhatIsNoRequestIsRefused) {
  // clang-format off
  const char* rows[] = {
      // A body has one length, and what comes after it is no second request.
      "400 {post}Content-Length: 1|Content-Length: 2||{}", "400 {post}Content-Length: -2||{}",
      "400 {post}Content-Length: 18446744073709551618||{}",
      "400 {post}Content-Length: 2|Transfer-Encoding: chunked||0||", "411 {post}Transfer-Encoding: chunked||0||",
      "411 {post}Transfer-Encoding: chunked, gzip||{}", "411 {post}|", "413 {post}Content-Length: 1||{}",
      "411 PUT {base}local HTTP/1.1|{own}{origin}|",
      "413 GET {base}albums HTTP/1.1|{own}Transfer-Encoding: chunked||1|b|0||",
      "413 GET {base}albums HTTP/1.1|{own}|GET /albums HTTP/1.1|{own}|",
      // Lines and fields.
      "400 GET {base}albums HTTP/1.1|{own}X : y||", "403 GET {base}albums HTTP/1.1|{own} goes on with the cookie||",
      "400 GET {base}albums HTTP/1.1|{own}X: a\rb||", "400 \x16\x03\x01\x02\x01\x01 a TLS hello||",
      "400 GET http://{host}{base}albums HTTP/1.1|{own}|", "400 GET * HTTP/1.1|{own}|",
      "400 GET {base}albums?a=%zz HTTP/1.1|{own}|", "400 GET {base}\x01 HTTP/1.1|{own}|",
      // Bodies of other kinds.
      "415 POST {base}history HTTP/1.1|{own}{origin}Content-Type: text/plain|Content-Length: 2||{}",
      "415 POST {base}history HTTP/1.1|{own}{origin}Content-Type: a/b; application/json|Content-Length: 2||{}",
      "400 {post}Content-Length: 0||", "400 {post}Content-Length: 13||{\"clear\":\"\xff\"}"};
  // clang-format on
  for (const char* row : rows) attack(std::stoi(row), expanded(row + 4));
  const std::string get = expanded("GET {base}albums HTTP/1.1|{own}"), far = expanded("GET {base}");
  const std::string version = expanded(" HTTP/1.1|{own}|"), post = expanded("{post}Content-Length: ");
  const std::string save = expanded("POST {base}downloads HTTP/1.1|{own}{origin}{json}Content-Length: ");
  const std::pair<int, std::string> tooMuch[] = {
      {431, get + std::string(20'000, 'X') + ": y\r\n\r\n"},
      {431, get + times(4'000, "X: y\r\n") + "\r\n"},
      {431, far + std::string(20'000, 'x') + version},
      {404, far + times(2'000, "../") + "secret" + version},
      {431, std::string(1'000'000, 'G')},
      {400, get + std::string("X: a\0b\r\n\r\n", 10)},
      {413, post + "4097\r\n\r\n" + std::string(4'097, ' ')},
      {413, post + "2000000\r\n\r\n" + std::string(2'000'000, ' ')},
      {413, save + "65537\r\n\r\n" + std::string(65'537, ' ')},
      {409, save + "60010\r\n\r\n" + R"({"url":")" + std::string(60'000, 'u') + "\"}"},  // addresses can be long
      {400, post + "4096\r\n\r\n" + std::string(4'096, '[')},
  };
  for (const auto& [status, sent] : tooMuch) attack(status, sent);
  // Identifiers of what is not there, with parts of a path and of other languages.
  for (const std::string& id :
       words("''%20OR%20%271%27='1 .. %2e%2e%2ftoken %2Fetc%2Fpasswd %00 %ff 99999999999999999999")) {
    for (const char* place : {"videos/", "posters/"}) attack("404 {base}" + (place + id) + "|{own}");
    attack("404 POST {base}downloads/" + id + R"(|{own}{origin}{json}Content-Length: 19||{"action":"cancel"})");
    attack("409 POST {base}library/" + id + R"(|{own}{origin}{json}Content-Length: 19||{"action":"remove"})");
  }
}

TEST_F(AttacksTest, OnlyThePagesOwnFilesAreFound) {
  for (const char* name : {"web/assets/a b.js", "web/assets/deep/x.css"}) put(place_ / name, "x");
  for (const char* name : {"web/.hidden", "secret"}) put(place_ / name, "nobody's");
  fs::create_symlink(place_ / "secret", place_ / "web/link.js");
  fs::create_symlink("loop", place_ / "web/loop");
  fs::create_directory_symlink(place_.path(), place_ / "web/up");
  fs::create_symlink("deep/x.css", place_ / "web/assets/inside.css");
  ASSERT_EQ(::mkfifo((place_ / "web/pipe").c_str(), 0600), 0);
  for (const std::string& path : words("index.html assets/a%20b.js assets/deep/x.css assets/inside.css")) {
    attack("200 {base}" + path + "|{own}");
  }
  for (const std::string& path : words(
           "../secret %2e%2e/secret assets/../../secret assets/..%2f..%2fsecret ..%5csecret .hidden %2ehidden link.js "
           "loop up/secret pipe /etc/passwd %2fetc/passwd assets assets/ index.html%00.js index.html/ ./index.html %zz "
           "%c0%ae%c0%ae/secret ..%252fsecret ../home/token bridge/../../home/token bridge/saveVideo")) {
    attack("404 {base}" + path + "|{own}");
  }
}

TEST_F(AttacksTest, AFileComesInWholeAndIsServedInParts) {
  const std::string content = std::string("OggS\0", 5) + std::string(2'999'995, 'v');  // taken as it comes
  const auto isEmpty = [this] { return fs::is_empty(home_ / "Local"); };
  const auto handIn = [&](const std::string& query, const std::string& length, const std::string& body) {
    return request("PUT PUT {base}local?" + query + "|{own}{origin}Content-Length: " + length + "|") + body;
  };
  const std::pair<int, std::string> refused[] = {
      {400, handIn("filename=a.ogg&album=", "9", "")},
      {507, handIn("filename=a.ogg&album=A", "18446744073709551615", "")},
      {413, handIn("filename=a.ogg&album=A", "1", "22")},
      {409, handIn("filename=a.ogg&album=A", "0", "")},
      {409, handIn("filename=a.mp4&album=A", "15", "<!doctype html>")},
  };
  for (const auto& [status, sent] : refused) attack(status, sent);
  for (const bool isReset : {false, true}) {
    ASSERT_TRUE(isEmpty());
    Wire cut(port_);
    cut.send(handIn("filename=a.ogg&album=A", "3000000", content.substr(0, 100'000)));
    ASSERT_TRUE(eventually([&] { return !isEmpty(); }));
    attack(409, handIn("filename=b.ogg&album=A", "4", "OggS"));  // one at a time
    isReset ? cut.reset() : cut.endSending();
    ASSERT_TRUE(eventually(isEmpty));
  }
  const char* names[] = {"a%20b.html&album=Sea", "../../../../evil.ogg&album=../../up",
                         "%2Fetc%2Fevil%00.ogg&album=%2e%2e", ".&album=.hidden%0A"};
  for (size_t i = 0; i < std::size(names); ++i) {
    attack(200, handIn(std::string("filename=") + names[i], "3000000", content));
    ASSERT_TRUE(eventually([&] { return savedFiles(home_).size() == i + 1; })) << names[i];
  }
  EXPECT_THAT(savedFiles(home_),
              testing::ElementsAre("Sea/a b.html", "_./_etc_evil_.ogg", "_._.._up/_._.._.._.._evil.ogg", "_hidden_/_"));
  EXPECT_TRUE(isEmpty());

  const std::string id = between(bodyOf(get("albums")), "\"id\":\"", "\"");
  const auto ask = [&](int status, const std::string& range, size_t from = 0, size_t to = 2'999'999) {
    const std::string answer = attack(fmt::format("{} {{base}}videos/{}|{{own}}Range: {}|", status, id, range));
    const std::string part = status == 206 ? fmt::format("bytes {}-{}", from, to) : status == 416 ? "bytes *" : "";
    EXPECT_EQ(between(answer, "Content-Range: ", "/3000000\r\n"), part) << range;
    if (status == 416) return;
    EXPECT_EQ(between(answer, "Content-Type: ", "\r\n"), "video/mp4") << "it is never run";
    EXPECT_TRUE(bodyOf(answer) == content.substr(from, to + 1 - from)) << range;
  };
  ask(206, "bytes=0-", 0, (2 << 20) - 1);
  ask(206, "bytes=-99999999", 0, (2 << 20) - 1);
  ask(206, "bytes=100-199", 100, 199);
  ask(206, "bytes=2999999-99999999999999999999999", 2'999'999);
  ask(206, "bytes=-100", 2'999'900);
  for (const char* range : {"bytes=3000000-", "bytes=99999999999999999999999-", "bytes=-0"}) ask(416, range);
  for (const char* range : {"bytes= 0-1", "bytes=0-1|If-Range: \"v1\"", "bytes=2-1", "bytes=0-1,3-4", "bytes=--1",
                            "bytes=-", "bytes=+0-1", "items=0-1", "bytes=1-x"}) {
    ask(200, range);
  }

  // What a killed server was taking in goes at the next start.
  const Wire last(port_);
  last.send(handIn("filename=a.ogg&album=A", "3000000", content.substr(0, 100'000)));
  ASSERT_TRUE(eventually([&] { return !isEmpty(); }));
  tarn_->signal(SIGKILL);
  tarn_->wait();
  start();
  EXPECT_FALSE(fs::exists(home_ / "Local"));
}

TEST_F(AttacksTest, WhateverAPageSendsIsAnsweredOrEndsItsConnection) {
  const std::string command = R"({"id":"1","plugin":"TarnBridge","method":"getDownloadLimit","options":)";
  const std::string piece(64 << 10, 'x');
  // The code of the server's close (1000 echoes that of the client), the words of the answer before it, what is sent.
  std::vector<std::tuple<int, const char*, std::string>> rows = {
      {1000, "not a JSON object", frame(whole | 2, "{\"id\":\"\xff\"}")},
      {1000, "not a JSON object", text(command + std::string(5'000, '['))},
      {1000, "not a JSON object", text(command + times(33, "{\"a\":") + "1" + std::string(34, '}'))},
      {1000, "not a JSON object", frame(1, "") + times(10'000, frame(0, "")) + frame(whole, "")},
      {1000, "The message is too large", text(R"({"id":"1"})" + std::string(256 << 10, ' '))},
      {1000, "\\\"id\\\" must", text(R"({"id":")" + std::string(129, 'i') + R"(","plugin":"P","method":"m"})")},
      {1000, "\"limit\"", text(command + R"({"a":[)" + times(100'000, "0,") + "0]}}")},
      {1000, "", times(20'000, frame(whole | 9, ""))},
      {1009, "", frame(whole | 1, command + std::string(4 << 20, ' '), 100 << 20)},
      {1009, "", frame(whole | 1, "", uint64_t{1} << 63)},
      {1009, "", frame(1, piece) + times(31, frame(0, piece))},
      {1000, "not a JSON object", text("")},
      {1000, "\\\"id\\\" must", text(R"({"id":7,"plugin":"P","method":"m"})")},
      {1000, "\\\"method\\\" must", text(R"({"id":"1","plugin":"P","method":5})")},
      {1000, "\\\"options\\\" must", text(R"({"id":"1","plugin":"P","method":"m","options":null})")},
      {1000, "\\\"visible\\\" must", text(R"({"visible":1})")},
      {1000, "not implemented", text(R"({"id":"1","plugin":"TarnHost","method":"getLibrary"})")},
  };
  // Against the rules of WebSockets (RFC 6455 5, 7.4, 8.1).
  for (const std::string& bad :
       {frame(whole | 1, "{}", 0, 0), frame(9, "ping"), frame(whole | 9, std::string(126, 'p')), frame(whole | 8, "c"),
        frame(whole | 8, "\x03\xe7"), frame(whole | 0x41, "{}"), frame(whole | 3, "{}"), frame(whole, "{}"),
        frame(1, "{}") + text("{}")}) {
    rows.push_back({1002, "", bad});
  }
  for (const std::string& bad : {text("{\"id\":\"\xff\"}"), frame(1, "\xc3") + frame(whole, "(")}) {
    rows.push_back({1007, "", bad});
  }
  for (const auto& [end, words, frames] : rows) {
    const Wire wire = pageWire(std::to_string(attacks_));
    wire.send(frames);
    EXPECT_THAT(*words == '\0' ? "" : wire.read(words), HasSubstr(words));
    wire.send(frame(whole | 8, "\x03\xe8"));
    const std::string said = wire.read();
    EXPECT_THAT(said, HasSubstr(std::string("\x88\x02") + static_cast<char>(end >> 8) + static_cast<char>(end)))
        << fmt::format("{:.60}", frames);
    EXPECT_THAT(said, Not(HasSubstr(stillOpen)));
    expectService();
  }

  // Pages that ask, do not read the answers, and say that they will send nothing more.
  std::vector<Wire> halfClosed;
  const std::string unread = text("{\"id\":\"" + std::string(110, 'i') + "\"}");
  for (size_t count = 900; count < 6'000; count += 300) {
    halfClosed.push_back(pageWire("half" + std::to_string(count), 4096));
    for (size_t i = 0; i < count; ++i) halfClosed.back().send(unread);
    halfClosed.back().endSending();
    expectService();
  }
  EXPECT_TRUE(eventually([this] { return descriptors() <= descriptors_; })) << "while they are there";
}

TEST_F(AttacksTest, WhoHoldsConnectionsKeepsNobodyOut) {
  server_.serve("/held", ServedFile::of(Bytes(3'000'000)), {}, {.stallAfter = 1000});
  page_->command("setDownloadLimit", {{"limit", 10}});
  const std::string name(40'000, 'f');
  for (int i = 0; i < 20; ++i) {
    page_->command("saveVideo", {{"url", server_.url("/held")}, {"album", "A"}, {"filename", name}});
  }
  hearsMuch_ = true;
  ASSERT_TRUE(eventually([&] { return server_.requests().size() >= 10; }));
  for (int i = 0; i < 2; ++i) page_->next("bytesDownloaded");
  descriptors_ = descriptors();

  // Who does not end a request; and pages that do not read what they ask for, nor events of megabytes.
  std::vector<Wire> slow;
  const std::string body = expanded("{post}Content-Length: 15||{\"clear");
  for (const std::string& begun : {std::string(), std::string("G"), body.substr(0, 100), body}) {
    slow.emplace_back(port_).send(begun);
  }
  const Wire deaf = pageWire("deaf", 4096);
  const auto areCutOff = [this] {
    expectService(0);
    return descriptors() <= descriptors_;
  };
  EXPECT_TRUE(eventually(areCutOff));
  const Wire asking = pageWire("asking", 4096), talking = pageWire("talking", 4096);
  for (int i = 0; i < 40; ++i) {
    asking.send(text(fmt::format(R"({{"id":"{}","plugin":"TarnBridge","method":"getActiveDownloads"}})", i)));
  }
  for (int i = 0; talking.send(text("{")); ++i) {
    if (i % 500 == 0) expectService(0);  // which reads the events
  }
  EXPECT_TRUE(eventually(areCutOff));
  for (const Wire& wire : slow) EXPECT_EQ(wire.read(), "");
  expectService(7);
  page_->command("cancelAllDownloads");
  expectService(0);
  hearsMuch_ = false;

  rlimit most{};
  ::getrlimit(RLIMIT_NOFILE, &most);
  const size_t many = std::min<size_t>(1'000, most.rlim_cur - 200);
  for (const std::string& begun : {std::string(), std::string("G"), expanded("GET / HTTP/1.1|") + name.substr(0, 7'000),
                                   expanded("GET {base}albums HTTP/1.1|Host: {host}||")}) {
    std::vector<Wire> held;
    for (size_t i = 0; i < many; ++i) {
      held.emplace_back(port_).send(begun);
      if (i % 100 == 99) expectService(0);
    }
    for (Wire& wire : held) wire.reset();
    expectService();
  }

  // Pages that may ask are not kept out by others, but are counted too.
  std::vector<std::unique_ptr<PageClient>> pages;
  const auto isFull = [&] { return askServer(port_, request("204 {base}bridge/alive|{own}")).empty(); };
  while (pages.size() < 100 && !isFull()) pages.push_back(connect(std::to_string(pages.size())));
  EXPECT_LE(pages.size(), 63U);
  EXPECT_THAT(pages.front()->next(), HasSubstr("hello"));
  pages.clear();
  EXPECT_TRUE(eventually([&] { return !isFull(); }));
  expectService();
}

}  // namespace
}  // namespace tarn::test

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <csignal>
#include <fstream>

#include "download/FirstRecord.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/Capacitor.h"
#include "platform/SHA256.h"
#include "platform/UserDefaults.h"
#include "platform/host/PosixFileManager.h"
#include "support/Eventually.h"
#include "support/FaultServer.h"
#include "support/RawHTTP.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

namespace asio = boost::asio;
namespace websocket = boost::beast::websocket;
using asio::ip::tcp;
using boost::system::error_code;
using namespace std::chrono_literals;

constexpr size_t videoSize = 3'000'000;

Bytes video() {
  Bytes bytes(videoSize);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  std::ranges::copy(std::string_view("OggS\0", 5), bytes.begin());  // a container is taken as it comes
  return bytes;
}

/// The WebSocket of a page, each operation waited for; its end drops the connection without a word.
class PageClient {
 public:
  /// Throws when it is refused. A `receiveBuffer` above 0 is the size of the socket's, in bytes.
  PageClient(uint16_t port, const std::string& base, const std::string& cookie, const std::string& page,
             int receiveBuffer = 0) {
    tcp::socket& socket = stream_.next_layer();
    socket.open(tcp::v4());
    if (receiveBuffer > 0) socket.set_option(tcp::socket::receive_buffer_size(receiveBuffer));
    socket.connect({asio::ip::address_v4::loopback(), port});
    const std::string host = "127.0.0.1:" + std::to_string(port);
    stream_.set_option(websocket::stream_base::decorator([&](websocket::request_type& request) {
      request.set("Origin", "http://" + host);
      request.set("Cookie", cookie);
    }));
    stream_.handshake(host, base + "bridge/socket?epoch=&seq=0&page=" + page);
  }

  /// False when the connection is gone.
  bool send(const std::string& message, bool isText = true) {
    error_code gone;
    stream_.text(isText);
    stream_.write(asio::buffer(message), gone);
    return !gone;
  }

  void command(const std::string& method, const JSObject& options = {}) {
    send(JSObject{{"id", "1"}, {"plugin", "TarnBridge"}, {"method", method}, {"options", options}}.json());
  }

  /// The next message that holds these words, those before it dropped; empty when the connection is gone.
  std::string next(const std::string& words = "") {
    for (;;) {
      boost::beast::flat_buffer buffer;
      error_code gone;
      stream_.read(buffer, gone);
      std::string message = boost::beast::buffers_to_string(buffer.data());
      if (gone) return {};
      if (message.find(words) != std::string::npos) return message;
    }
  }

 private:
  asio::io_context context_;
  websocket::stream<tcp::socket> stream_{context_};
};

/// A real `tarn serve` with a home and a built page of its own.
class ServeTest : public testing::Test {
 protected:
  ServeTest() {
    std::filesystem::create_directories(place_ / "web/bridge");
    std::ofstream(place_ / "web/index.html") << "<!doctype html><head><title>Page</title></head>";
    std::ofstream(place_ / "web/bridge/native.js") << "notTheHosts();";
    start();
  }

  /// Whatever a test has left open, the server leaves in order.
  void TearDown() override {
    server_->signal(SIGTERM);
    EXPECT_EQ(server_->wait(), 130) << server_->errors();
  }

  /// Starts the server, at the same port as before.
  void start() {
    const std::vector<std::string> arguments{"serve", "--web", place_ / "web", "--port", std::to_string(port_)};
    server_ = std::make_unique<ChildProgram>(tarnCommand(home_, arguments), place_.path());
    eventually([this] { return server_->output().ends_with('\n'); });
    const std::string address = server_->output();
    ASSERT_TRUE(address.starts_with("http://127.0.0.1:") && address.ends_with('\n')) << address << server_->errors();
    port_ = static_cast<uint16_t>(std::stoi(between(address, "127.0.0.1:", "/")));
    token_ = between(address, "token=", "\n");
    host_ = "127.0.0.1:" + std::to_string(port_);
    takeCookie(getAsStranger("/?token=" + token_));
  }

  /// What a browser keeps of an answer: the cookie, and the path that it belongs to.
  void takeCookie(const std::string& answer) {
    cookie_ = between(answer, "Set-Cookie: ", ";");
    base_ = between(answer, "; Path=", "\r\n");
  }

  /// An answer to who has no cookie.
  std::string getAsStranger(const std::string& target, const std::string& fields = "") {
    return askServer(port_, "GET " + target + " HTTP/1.1\r\nHost: " + host_ + "\r\n" + fields + "\r\n");
  }

  /// `target` is relative, as in the page.
  std::string get(const std::string& target, const std::string& fields = "") {
    return getAsStranger(base_ + target, "Cookie: " + cookie_ + "\r\n" + fields);
  }

  std::unique_ptr<PageClient> connect(const std::string& page) {
    return std::make_unique<PageClient>(port_, base_, cookie_, page);
  }

  TempDirectory place_;
  Path home_ = place_.path() / "home";
  uint16_t port_ = 0;
  std::string token_;
  std::string host_;
  std::string base_;  // all is served below it
  std::string cookie_;
  std::unique_ptr<ChildProgram> server_;
};

TEST_F(ServeTest, AnAddressInAFileIsForItsOwnerAloneAndForAsLongAsTheServerRuns) {
  const Path file = place_ / "address";
  std::ofstream(file) << "of a server that was killed";
  std::filesystem::create_directory(place_ / "second");
  ChildProgram second(tarnCommand(place_ / "second/home", {"serve", "--web", place_ / "web", "--address-file", file}),
                      place_ / "second");
  ASSERT_TRUE(eventually([&] { return contentOf(file).ends_with('\n'); }));
  const std::string port = between(contentOf(file), "http://127.0.0.1:", "/?token=");
  const std::string entry = between(contentOf(file), port, "\n");
  const std::string request = "GET " + entry + " HTTP/1.1\r\nHost: 127.0.0.1:" + port + "\r\n\r\n";
  EXPECT_TRUE(askServer(static_cast<uint16_t>(std::stoi(port)), request).starts_with("HTTP/1.1 200"));
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(second.output(), "");
  second.signal(SIGTERM);
  EXPECT_EQ(second.wait(), 130) << second.errors();
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(ServeTest, RefusesWhoMayNotAsk) {
  const std::string port = std::to_string(port_);
  const std::string host = "Host: " + host_ + "\r\n";
  const std::string cookie = "Cookie: " + cookie_ + "\r\n";
  const std::string origin = "Origin: http://" + host_ + "\r\n";
  const std::string own = host + cookie;
  const std::string click = "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: navigate\r\nSec-Fetch-Dest: ";
  const std::string upgrade =
      "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  const std::string json = "Content-Type: application/json\r\n";
  const std::string entry = "/?token=" + token_;
  const std::string secret = cookie_.substr(cookie_.find('=') + 1);
  const std::string alive = base_ + "bridge/alive";
  const std::string albums = base_ + "albums";
  const std::string socket = base_ + "bridge/socket?page=p&epoch=&seq=0";
  struct Row {
    int status;
    std::string target;  // of a GET, where no method stands ahead of it
    std::string fields;
  };
  const Row rows[] = {
      {204, alive, own},
      {204, alive, own + origin + "Sec-Fetch-Site: same-origin\r\n"},
      {421, base_, "Host: evil.example:" + port + "\r\n" + cookie},
      {421, base_, host + own},
      {403, albums, own + "Origin: http://evil.example\r\n"},
      {403, albums, own + "Origin: http://127.0.0.1:" + std::to_string(port_ + 1) + "\r\n"},
      {403, albums, own + origin + origin},
      {403, albums, own + "Sec-Fetch-Site: cross-site\r\n"},
      {403, albums, own + "Sec-Fetch-Site: same-site\r\n"},  // another port of this machine
      {403, albums, host},
      {204, base_ + "favicon.ico", own},
      {403, albums, host + "Cookie: tarn-" + port + "=" + std::string(64, '0') + "\r\n"},
      {403, albums, host + "Cookie: tarn-" + port + "=" + token_ + "\r\n"},
      {403, alive, host + "Cookie: " + cookie_.substr(0, cookie_.size() - 1) + "\r\n"},
      {403, albums, host + "Cookie: tarn-1=" + secret + "; x" + cookie_ + "; tarn-" + port + " =" + secret + "\r\n"},
      {204, alive, host + "Cookie: a=b; " + cookie_ + "\r\n"},
      {403, albums + "?token=" + token_, host},
      {403, "/?token=" + token_.substr(1), host},
      // Nothing is served elsewhere, whoever asks.
      {403, "/albums", own},
      {403, "/", own},
      {403, "/" + std::string(32, '0') + "/albums", own},
      {403, base_.substr(0, base_.size() - 1), own},
      // A page is sent by a click on the printed link, and by no other.
      {200, entry, host + click + "document\r\n"},
      {403, entry, host + click + "iframe\r\n"},
      {403, base_, own + click + "document\r\n"},
      {308, albums, "Host: localhost:" + port + "\r\n"},
      {421, albums, "Host: localhost:" + std::to_string(port_ + 1) + "\r\n" + cookie},
      {405, "POST " + base_ + "bridge/saveVideo", own + origin},
      {405, "HEAD " + albums, own},
      {404, base_ + "bridge/saveVideo", own},
      {404, base_ + "../outside.js", own},
      {400, "http://" + host_ + albums, own},
      // What changes something comes from a page of this origin, and is small.
      {403, "POST " + base_ + "history", own + json + "Content-Length: 2\r\n\r\n{}"},
      {403, "POST " + base_ + "history", host + origin + json + "Content-Length: 2\r\n\r\n{}"},
      {403, "PUT " + base_ + "local", own + "Content-Length: 2\r\n\r\n{}"},
      {405, "DELETE " + base_ + "history", own + origin},
      {405, "PUT " + base_ + "history", own + origin + "Content-Length: 2\r\n\r\n{}"},
      {405, base_ + "local", own},
      {411, "POST " + base_ + "history", own + origin + json},
      {411, "POST " + base_ + "history", own + origin + json + "Transfer-Encoding: chunked\r\n\r\n0\r\n"},
      {411, "PUT " + base_ + "local", own + origin},
      {413, "POST " + base_ + "history", own + origin + json + "Content-Length: 1\r\n\r\n{}"},
      {413, "POST " + base_ + "history", own + origin + json + "Content-Length: 4097\r\n\r\n" + std::string(4097, ' ')},
      {415, "POST " + base_ + "history", own + origin + "Content-Type: text/plain\r\nContent-Length: 4\r\n\r\n{}"},
      {507, "PUT " + base_ + "local?filename=a.mp4&album=A", own + origin + "Content-Length: 9000000000000000000\r\n"},
      {413, "POST " + base_ + "history",
       own + origin + json + "Content-Length: 2000000\r\n\r\n" + std::string(2'000'000, 'b')},
      {413, albums, own + "Transfer-Encoding: chunked\r\n\r\n1\r\nb\r\n0\r\n"},
      {413, albums, own + "\r\nGET /albums HTTP/1.1\r\n" + own},
      {431, base_, own + "X: " + std::string(20'000, 'x') + "\r\n"},
      {403, socket, own + upgrade},
      {403, socket, host + origin + upgrade},
      {426, socket, own + origin},
      {400, base_ + "bridge/socket?page=../p&epoch=&seq=0", own + origin + upgrade},
      {400, base_ + "bridge/socket?page=p&epoch=&seq=-1", own + origin + upgrade},
      {413, socket, own + origin + upgrade + "\r\nbytes behind"},
      // A page that rejoins proves that this home has served it.
      {200, "/rejoin", host + origin},
      {403, "/rejoin", host + "Origin: http://evil.example\r\n"},
      {403, "/rejoin", host + "Sec-Fetch-Site: same-site\r\n"},
      {403, "/rejoin?proof=" + std::string(64, '0'), host + origin},
      {403, "/rejoin?proof=", host + origin},
  };
  for (const Row& row : rows) {
    const std::string method = row.target.find(' ') == std::string::npos ? "GET " : "";
    const std::string answer = askServer(port_, method + row.target + " HTTP/1.1\r\n" + row.fields + "\r\n");
    EXPECT_EQ(statusOf(answer), row.status) << row.target << "\n" << row.fields.substr(0, 400) << "\n" << answer;
    for (const char* words : {"Access-Control", "unsafe"}) EXPECT_EQ(answer.find(words), std::string::npos) << words;
    for (const char* words : {"Content-Security-Policy: default-src 'none'; script-src 'self';",
                              "X-Content-Type-Options: nosniff", "Cache-Control: no-store"}) {
      EXPECT_NE(answer.find(words), std::string::npos) << words;
    }
  }
  EXPECT_NE(connect("p")->next().find("hello"), std::string::npos);
  EXPECT_THROW(PageClient(port_, base_, "tarn=x", "p"), boost::system::system_error);
}

TEST_F(ServeTest, TheLinkLetsABrowserIn) {
  const std::string entry = getAsStranger("/?token=" + token_);
  EXPECT_THAT(base_, testing::MatchesRegex("/[0-9a-f]{32}/"));
  EXPECT_THAT(cookie_, testing::MatchesRegex("tarn-" + std::to_string(port_) + "=[0-9a-f]{64}"));
  EXPECT_EQ(between(entry, "Set-Cookie: ", "\r\n"), cookie_ + "; HttpOnly; SameSite=Strict; Path=" + base_);
  EXPECT_NE(entry.find("url=" + base_ + "\""), std::string::npos) << entry;
  for (const char* target : {"", "bridge/native.js", "albums"}) {
    EXPECT_EQ(get(target).find(token_), std::string::npos) << "no page learns the token of the home";
  }
  EXPECT_NE(get("").find(R"(<head><script src="bridge/native.js"></script><title>)"), std::string::npos);
  const std::string script = get("bridge/native.js");
  EXPECT_TRUE(bodyOf(script).starts_with(R"(const tarnPlugins = [{"name":"TarnBridge","methods":[)")) << script;
  EXPECT_THAT(script, testing::HasSubstr("PluginHeaders"));
  EXPECT_THAT(script, Not(testing::HasSubstr("notTheHosts"))) << "a folder's own script is not the bridge";

  auto second = runTarn(place_ / "other", {"serve", "--web", place_ / "web", "--port", std::to_string(port_)});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_NE(second.errors.find("cannot be had"), std::string::npos) << second.errors;
  auto unbuilt = runTarn(place_ / "other", {"serve", "--web", place_ / "none"});
  EXPECT_EQ(unbuilt.exitCode, 1);
  EXPECT_NE(unbuilt.errors.find("The page is not built"), std::string::npos) << unbuilt.errors;
}

TEST_F(ServeTest, ASecondOneTellsTheAddressOfTheFirst) {
  const auto second = runTarn(home_, {"serve", "--port", "1"});
  EXPECT_EQ(second.exitCode, 0) << second.errors;
  EXPECT_EQ(second.output, server_->output());
  EXPECT_NE(second.errors.find("--port and --web change nothing"), std::string::npos) << second.errors;
  FaultServer source;
  source.serve("/held", ServedFile::of(video()), {{.stallAfter = 1000}});
  const Path other = place_ / "other";
  const ChildProgram save(tarnCommand(other, {"save", source.url("/held"), "--album", "Trips"}), place_.path());
  ASSERT_TRUE(eventually([&] { return !source.requests().empty(); }));
  const auto none = runTarn(other, {"serve"});
  EXPECT_EQ(none.exitCode, 75) << "it may work later";
  EXPECT_EQ(none.output, "");
  EXPECT_NE(none.errors.find("Another tarn works in"), std::string::npos) << none.errors;
}

TEST_F(ServeTest, NobodyElseCanHaveThePortOnTheOtherLoopback) {
  asio::io_context context;
  error_code failure;
  tcp::acceptor other(context);
  other.open(tcp::v6());
  other.set_option(asio::ip::v6_only(true));
  if (other.bind({asio::ip::address_v6::loopback(), 0}, failure)) GTEST_SKIP() << "this machine has no ::1";
  tcp::acceptor same(context, tcp::v6());
  same.set_option(asio::ip::v6_only(true));
  same.bind({asio::ip::address_v6::loopback(), port_}, failure);
  EXPECT_EQ(failure, asio::error::address_in_use);
  const std::string answer =
      askServer(port_, "GET /?token=" + token_ + " HTTP/1.1\r\nHost: [::1]:" + std::to_string(port_) + "\r\n\r\n",
                asio::ip::address_v6::loopback());
  EXPECT_EQ(between(answer, "Location: ", "\r\n"), "http://" + host_ + "/?token=" + token_) << answer;

  // A port whose other half is taken is not had at all.
  const std::string taken = std::to_string(other.local_endpoint().port());
  const auto second = runTarn(place_ / "other", {"serve", "--web", place_ / "web", "--port", taken});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_NE(second.errors.find("Port " + taken + " cannot be had"), std::string::npos) << second.errors;
}

TEST_F(ServeTest, AStartHasASecretOfItsOwnAndAnOpenPageRejoins) {
  const std::string oldBase = base_, oldCookie = cookie_;
  const std::string key = between(bodyOf(get("bridge/native.js")), "const tarnPageKey = \"", "\"");
  server_->signal(SIGTERM);
  server_->wait();
  start();
  EXPECT_NE(base_, oldBase);
  EXPECT_NE(cookie_, oldCookie);
  EXPECT_EQ(statusOf(getAsStranger(oldBase + "bridge/alive", "Cookie: " + oldCookie + "\r\n")), 403);
  EXPECT_EQ(statusOf(getAsStranger(base_ + "bridge/alive", "Cookie: " + oldCookie + "\r\n")), 403);

  const std::string challenge = between(bodyOf(getAsStranger("/rejoin")), "\"challenge\":\"", "\"");
  auto proof = [&](const std::string& origin) {
    const std::string text = challenge + "\n" + origin;
    std::string given;
    for (const uint8_t byte : hmacSHA256(bytesOf(key), bytesOf(text))) given += fmt::format("{:02x}", byte);
    return given;
  };
  const std::string elsewhere = "http://127.0.0.1:" + std::to_string(port_ + 1);
  EXPECT_EQ(statusOf(getAsStranger("/rejoin?proof=" + proof(elsewhere))), 403) << "a proof given to another port";
  const std::string answer = getAsStranger("/rejoin?proof=" + proof("http://" + host_));
  EXPECT_EQ(bodyOf(answer), "{\"path\":\"" + base_ + "\"}");
  const std::string cookie = cookie_;
  takeCookie(answer);
  EXPECT_EQ(cookie_, cookie);
  EXPECT_EQ(statusOf(get("bridge/alive")), 204);
}

TEST_F(ServeTest, ASavedVideoIsListedAndPlayedInParts) {
  FaultServer source;
  source.serve("/clip.html", ServedFile::of(video()));
  const auto page = connect("p");
  page->command("saveVideo", {{"url", source.url("/clip.html")}, {"album", "Trips"}, {"filename", "clip.html"}});
  const std::string complete = page->next("downloadComplete");
  EXPECT_NE(complete.find("STATUS_SUCCESSFUL"), std::string::npos) << complete;
  const std::string id = between(complete, R"("assetId":")", "\"");

  EXPECT_THAT(
      bodyOf(get("albums")),
      testing::MatchesRegex(
          R"(\{"albums":\[\{"title":"Trips","assets":\[\{"id":")" + id +
          R"(","filename":"clip.html","bytes":3000000,"created":1[0-9.]+,"path":"/.*/home/Photos/Trips/clip.html","video":"videos/)" +
          id + R"("\}\]\}\]\})"));

  const Bytes bytes = video();
  const std::string content(bytes.begin(), bytes.end());
  struct Row {
    const char* fields;
    int status;
    const char* range;
    std::string body;
  };
  const Row rows[] = {
      {"Range: bytes=0-\r\n", 206, "bytes 0-2097151/3000000", content.substr(0, 2 << 20)},
      {"Range: bytes=2097152-\r\n", 206, "bytes 2097152-2999999/3000000", content.substr(2 << 20)},
      {"Range: bytes=3000000-\r\n", 416, "bytes */3000000", "The video has no such bytes.\n"},
      {"Range: bytes=0-1\r\nIf-Range: \"v1\"\r\n", 200, "", content},
  };
  for (const Row& row : rows) {
    const std::string answer = get("videos/" + id, row.fields);
    EXPECT_EQ(statusOf(answer), row.status) << row.fields;
    EXPECT_EQ(between(answer, "Content-Range: ", "\r\n"), row.range);
    EXPECT_EQ(between(answer, "Content-Type: ", "\r\n"), row.status == 416 ? "text/plain; charset=utf-8" : "video/mp4");
    EXPECT_TRUE(bodyOf(answer) == row.body) << row.fields << bodyOf(answer).size();
  }
}

TEST_F(ServeTest, AConnectionOutlivesWhateverIsSent) {
  auto page = connect("p");
  page->next();
  ASSERT_TRUE(page->send(R"({"id":"0"})" + std::string(300'000, ' ')));
  EXPECT_EQ(page->next(), R"({"id":"0","reject":{"message":"The message is too large"}})");
  ASSERT_TRUE(page->send("{\"id\":\"\xff\"}", false));
  EXPECT_NE(page->next().find("not a JSON object"), std::string::npos);
  page->command("setDownloadLimit", {{"limit", 50}});
  EXPECT_EQ(page->next(), R"({"id":"1","resolve":{"limit":10}})");

  // What breaks the WebSocket's own rules ends the connection, and no other; so does not reading what was asked for.
  const auto other = connect("other");
  other->next();
  const std::string deadly[] = {"{\"id\":\"\xff\"}", std::string(2 << 20, 'x')};
  for (const std::string& message : deadly) {
    page = connect("p");
    page->next();
    page->send(message);
    EXPECT_EQ(page->next(), "");
  }
  PageClient slow(port_, base_, cookie_, "slow", 4096);
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  bool isCutOff = false;
  while (!isCutOff && std::chrono::steady_clock::now() < deadline) isCutOff = !slow.send(std::string(9, '{'));
  EXPECT_TRUE(isCutOff);
  other->command("getDownloadLimit");
  EXPECT_EQ(other->next(), R"({"id":"1","resolve":{"limit":10,"queued":0}})");
}

TEST_F(ServeTest, ConnectionsAreCounted) {
  std::vector<std::unique_ptr<PageClient>> pages;
  for (int i = 0; i < 64; ++i) pages.push_back(connect(std::to_string(i)));
  EXPECT_EQ(askServer(port_, "GET / HTTP/1.1\r\n\r\n"), "");
  EXPECT_NE(pages.front()->next().find("hello"), std::string::npos);
  pages.clear();
  EXPECT_TRUE(eventually([&] { return statusOf(get("")) == 200; }));
}

TEST_F(ServeTest, CommandsBesideItUseItsEngine) {
  FaultServer source;
  const auto page = connect("p");
  const auto start = [&](const char* path) {
    source.serve(path, ServedFile::of(video()), {{.stallAfter = 1000}});
    const std::vector<std::string> arguments{"save", source.url(path), "--album", "Trips", "--json"};
    auto save = std::make_unique<ChildProgram>(tarnCommand(home_, arguments), place_.path());
    EXPECT_NE(page->next("STATUS_RUNNING").find(path + 1), std::string::npos);
    return save;
  };
  const auto cancelled = start("/cancelled");
  const std::string id = between(page->next("STATUS_RUNNING"), "\"id\":", ",");
  page->command("cancel", {{"id", static_cast<int64_t>(std::stoll(id))}});
  EXPECT_EQ(cancelled->wait(), 1);
  EXPECT_NE(cancelled->errors().find("somebody cancelled the download"), std::string::npos) << cancelled->errors();

  const auto interrupted = start("/interrupted");
  interrupted->signal(SIGINT);
  EXPECT_EQ(interrupted->wait(), 130) << interrupted->errors();
  const auto saved = start("/saved");
  const auto list = runTarn(home_, {"library"});
  EXPECT_EQ(list.exitCode, 0) << list.errors;
  source.release();
  EXPECT_EQ(saved->wait(), 0) << saved->errors();
  EXPECT_NE(page->next("downloadComplete").find("STATUS_SUCCESSFUL"), std::string::npos);
  const auto rest = runTarn(home_, {"resume"});
  EXPECT_EQ(rest.exitCode, 0) << rest.errors;
  EXPECT_EQ(savedFiles(home_), (std::vector<std::string>{"Trips/interrupted.mp4", "Trips/saved.mp4"}));
}

TEST_F(ServeTest, StoredRunsAreAllTakenUpWithoutAPage) {
  server_->signal(SIGTERM);
  server_->wait();
  PosixFileManager files(home_);
  SystemClock clock;
  UserDefaults defaults(files, home_ / "Defaults");
  ProcessingStateManager store(defaults, files, clock);
  const auto leave = [&](int64_t id) {
    const Path file = home_ / "Documents" / ("clip" + std::to_string(id));
    std::ofstream(file) << "FLV\1" << id;
    store.saveState(makeFirstRecord(files, clock, id, file, {.url = "", .album = "Trips"}));
  };
  for (const int64_t id : {1, 2}) leave(id);
  start();
  EXPECT_TRUE(eventually([&] { return savedFiles(home_) == std::vector<std::string>{"Trips/clip1", "Trips/clip2"}; }));
  // And what is left there while it runs, once the server has done with the records: two writers at the same time lose
  // one's.
  EXPECT_TRUE(eventually([&] {
    const auto pending = store.allPendingStates();
    return pending && pending->empty();
  }));
  leave(3);
  EXPECT_TRUE(eventually([&] { return savedFiles(home_).size() == 3; }));
}

}  // namespace
}  // namespace tarn::test

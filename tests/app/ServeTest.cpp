#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <thread>

#include "app/PageClient.h"
#include "app/TarnProcess.h"
#include "download/FirstRecord.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/UserDefaults.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultServer.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;

constexpr size_t videoSize = 3'000'000;

Bytes video() {
  Bytes bytes(videoSize);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

std::string between(const std::string& text, const std::string& before, const std::string& after) {
  const size_t start = text.find(before);
  if (start == std::string::npos) return {};
  const size_t from = start + before.size();
  return text.substr(from, text.find(after, from) - from);
}

std::string bodyOf(const std::string& answer) {
  return answer.substr(answer.find("\r\n\r\n") + 4);
}

int statusOf(const std::string& answer) {
  return answer.size() > 12 ? std::stoi(answer.substr(9, 3)) : 0;
}

/// A real `tarn serve` with a home and a built page of its own.
class ServeTest : public testing::Test {
 protected:
  ServeTest() {
    std::filesystem::create_directories(place_ / "web/bridge");
    std::ofstream(place_ / "web/index.html") << "<!doctype html><head><title>Page</title></head>";
    std::ofstream(place_ / "web/bridge/native.js") << "native(tarnPlugins);";
    std::ofstream(place_ / "outside.js") << "outside";
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
    for (int i = 0; i < 2000 && !server_->output().ends_with('\n'); ++i) std::this_thread::sleep_for(10ms);
    const std::string address = server_->output();
    ASSERT_TRUE(address.starts_with("http://127.0.0.1:") && address.ends_with('\n')) << address << server_->errors();
    port_ = static_cast<uint16_t>(std::stoi(between(address, "127.0.0.1:", "/")));
    token_ = between(address, "token=", "\n");
    host_ = "127.0.0.1:" + std::to_string(port_);
    cookie_ = "tarn-" + std::to_string(port_) + "=" + token_;
  }

  std::string get(const std::string& target, const std::string& fields = "") {
    return askServer(
        port_, "GET " + target + " HTTP/1.1\r\nHost: " + host_ + "\r\nCookie: " + cookie_ + "\r\n" + fields + "\r\n");
  }

  void saveVideo(PageClient& page, const std::string& id, const std::string& path) {
    page.command(id, "saveVideo", {{"url", source_.url(path)}, {"album", "Trips"}, {"filename", path.substr(1)}});
  }

  /// How often the log has this line.
  size_t logged(const std::string& line) const {
    const std::string text = contentOf(home_ / "log/tarn.log");
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) ++count;
    return count;
  }
  void waitForLog(const std::string& line, size_t count) const {
    for (int i = 0; i < 1000 && logged(line) < count; ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(logged(line), count) << line;
  }

  TempDirectory place_;
  Path home_ = place_.path() / "home";
  FaultServer source_;
  uint16_t port_ = 0;
  std::string token_;
  std::string host_;
  std::string cookie_;
  std::unique_ptr<ChildProgram> server_;
};

TEST_F(ServeTest, RefusesWhoMayNotAsk) {
  const std::string host = "Host: " + host_ + "\r\n";
  const std::string cookie = "Cookie: " + cookie_ + "\r\n";
  const std::string origin = "Origin: http://" + host_ + "\r\n";
  const std::string upgrade =
      "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
      "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  const std::string wrongCookie = "Cookie: tarn-" + std::to_string(port_) + "=" + std::string(64, '0') + "\r\n";
  const std::string socket = "GET /bridge/socket?page=p&epoch=&seq=0 HTTP/1.1\r\n";
  struct Row {
    int status;
    std::string request;
  };
  const Row rows[] = {
      {204, "GET /bridge/alive HTTP/1.1\r\n" + host + cookie},
      {204, "GET /bridge/alive HTTP/1.1\r\n" + host + cookie + origin + "Sec-Fetch-Site: same-origin\r\n"},
      {421, "GET / HTTP/1.1\r\nHost: evil.example:" + std::to_string(port_) + "\r\n" + cookie},
      {421, "GET / HTTP/1.1\r\nHost: localhost:" + std::to_string(port_) + "\r\n" + cookie},
      {421, "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n" + cookie},
      {421, "GET / HTTP/1.1\r\n" + host + host + cookie},
      {421, "GET / HTTP/1.1\r\n" + cookie},
      {403, "GET /albums HTTP/1.1\r\n" + host + cookie + "Origin: http://evil.example\r\n"},
      {403, "GET /albums HTTP/1.1\r\n" + host + cookie + "Origin: null\r\n"},
      {403, "GET /albums HTTP/1.1\r\n" + host + cookie + origin + origin},
      {403, "GET /albums HTTP/1.1\r\n" + host + cookie + "Sec-Fetch-Site: cross-site\r\n"},
      {403, "GET /albums HTTP/1.1\r\n" + host + cookie + "Sec-Fetch-Site: same-site\r\n"},
      {403, "GET /albums HTTP/1.1\r\n" + host},
      {403, "GET /albums HTTP/1.1\r\n" + host + wrongCookie},
      {403, "GET /bridge/alive HTTP/1.1\r\n" + host + wrongCookie},
      {403, "GET /albums?token=" + token_ + " HTTP/1.1\r\n" + host},
      {403, "GET /?token=" + token_.substr(1) + " HTTP/1.1\r\n" + host},
      {403, "GET /favicon.ico HTTP/1.1\r\n" + host},
      {204, "GET /favicon.ico HTTP/1.1\r\n" + host + cookie},
      {405, "POST /bridge/saveVideo HTTP/1.1\r\n" + host + cookie},
      {405, "HEAD /albums HTTP/1.1\r\n" + host + cookie},
      {405, "OPTIONS /albums HTTP/1.1\r\n" + host + cookie + origin},
      {404, "GET /bridge/saveVideo HTTP/1.1\r\n" + host + cookie},
      {404, "GET /videos/..%2f..%2ftoken HTTP/1.1\r\n" + host + cookie},
      {404, "GET /../outside.js HTTP/1.1\r\n" + host + cookie},
      {404, "GET /%2e%2e/outside.js HTTP/1.1\r\n" + host + cookie},
      {400, "GET http://" + host_ + "/albums HTTP/1.1\r\n" + host + cookie},
      {400, "GET / HTTP/9\r\n" + host + cookie},
      {413,
       "POST /albums HTTP/1.1\r\n" + host + cookie + "Content-Length: 2000000\r\n\r\n" + std::string(2'000'000, 'b')},
      {413, "GET /albums HTTP/1.1\r\n" + host + cookie + "Transfer-Encoding: chunked\r\n\r\n1\r\nb\r\n0\r\n"},
      {413, "GET /albums HTTP/1.1\r\n" + host + cookie + "\r\nGET /albums HTTP/1.1\r\n" + host + cookie},
      {431, "GET / HTTP/1.1\r\n" + host + cookie + "X: " + std::string(20'000, 'x') + "\r\n"},
      {101, socket + host + cookie + origin + upgrade},
      {403, socket + host + cookie + upgrade},
      {403, socket + host + cookie + "Origin: http://evil.example\r\n" + upgrade},
      {403, socket + host + origin + upgrade},
      {421, socket + "Host: evil.example\r\n" + cookie + origin + upgrade},
      {426, socket + host + cookie + origin},
      {400, "GET /bridge/socket?page=../p&epoch=&seq=0 HTTP/1.1\r\n" + host + cookie + origin + upgrade},
      {400, "GET /bridge/socket?page=p&epoch=&seq=-1 HTTP/1.1\r\n" + host + cookie + origin + upgrade},
      {413, socket + host + cookie + origin + upgrade + "\r\nbytes behind"},
  };
  for (const Row& row : rows) {
    if (row.status == 101) {
      PageClient page(port_, cookie_, {.page = "p"});
      EXPECT_NE(page.next().find("hello"), std::string::npos);
      continue;
    }
    const std::string answer = askServer(port_, row.request + "\r\n");
    EXPECT_EQ(statusOf(answer), row.status) << row.request.substr(0, 400) << "\n" << answer;
    EXPECT_EQ(answer.find("Access-Control"), std::string::npos);
    EXPECT_NE(answer.find("Content-Security-Policy: default-src 'none'; script-src 'self';"), std::string::npos);
    EXPECT_NE(answer.find("X-Content-Type-Options: nosniff"), std::string::npos);
    EXPECT_NE(answer.find("Cache-Control: no-store"), std::string::npos);
  }
  EXPECT_THROW(PageClient(port_, "tarn=x", {.page = "p"}), std::runtime_error);
}

TEST_F(ServeTest, TheLinkLetsABrowserIn) {
  const std::string entry = askServer(port_, "GET /?token=" + token_ + " HTTP/1.1\r\nHost: " + host_ + "\r\n\r\n");
  EXPECT_EQ(statusOf(entry), 200);
  EXPECT_EQ(between(entry, "Set-Cookie: ", "\r\n"), cookie_ + "; HttpOnly; SameSite=Strict; Path=/");
  EXPECT_NE(entry.find(R"(http-equiv="refresh" content="0;url=/")"), std::string::npos);
  EXPECT_NE(get("/").find(R"(<head><script src="/bridge/native.js"></script><title>)"), std::string::npos);
  const std::string script = get("/bridge/native.js");
  EXPECT_EQ(between(script, "Content-Type: ", "\r\n"), "text/javascript; charset=utf-8");
  EXPECT_TRUE(bodyOf(script).starts_with(R"(const tarnPlugins = [{"name":"TarnBridge","methods":[)")) << script;
  EXPECT_TRUE(script.ends_with("\nnative(tarnPlugins);"));

  auto second = runTarn(place_ / "other", {"serve", "--web", place_ / "web", "--port", std::to_string(port_)});
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_NE(second.errors.find("cannot be had"), std::string::npos) << second.errors;
  auto unbuilt = runTarn(place_ / "other", {"serve", "--web", place_ / "none"});
  EXPECT_EQ(unbuilt.exitCode, 1);
  EXPECT_NE(unbuilt.errors.find("The page is not built"), std::string::npos) << unbuilt.errors;
}

TEST_F(ServeTest, ASavedVideoIsListedAndPlayedInParts) {
  source_.serve("/clip.html", ServedFile::of(video()));
  PageClient page(port_, cookie_, {.page = "p"});
  saveVideo(page, "1", "/clip.html");
  EXPECT_NE(page.nextWith(R"("id":"1")").find("resolve"), std::string::npos);
  const std::string complete = page.nextWith("downloadComplete");
  EXPECT_NE(complete.find("STATUS_SUCCESSFUL"), std::string::npos) << complete;
  const std::string id = between(complete, R"("assetId":")", "\"");

  const auto albums = JSObject::parse(bodyOf(get("/albums")));
  ASSERT_TRUE(albums);
  const std::string listed = albums->json();
  EXPECT_TRUE(listed.starts_with(R"({"albums":[{"title":"Trips","assets":[{"id":")" + id +
                                 R"(","filename":"clip.html","bytes":3000000,"created":1)"))
      << listed;
  EXPECT_TRUE(listed.ends_with(R"(,"video":"/videos/)" + id + R"("}]}]})")) << listed;

  const Bytes bytes = video();
  const std::string content(bytes.begin(), bytes.end());
  struct Row {
    const char* fields;
    int status;
    const char* range;
    std::string body;
  };
  const Row rows[] = {
      {"", 200, "", content},
      {"Range: bytes=0-\r\n", 206, "bytes 0-2097151/3000000", content.substr(0, 2 << 20)},
      {"Range: bytes=2097152-\r\n", 206, "bytes 2097152-2999999/3000000", content.substr(2 << 20)},
      {"Range: bytes=10-19\r\n", 206, "bytes 10-19/3000000", content.substr(10, 10)},
      {"Range: bytes=-5\r\n", 206, "bytes 2999995-2999999/3000000", content.substr(videoSize - 5)},
      {"Range: bytes=3000000-\r\n", 416, "bytes */3000000", "The video has no such bytes.\n"},
      {"Range: bytes=0-1\r\nIf-Range: \"v1\"\r\n", 200, "", content},
  };
  for (const Row& row : rows) {
    const std::string answer = get("/videos/" + id, row.fields);
    EXPECT_EQ(statusOf(answer), row.status) << row.fields;
    EXPECT_EQ(between(answer, "Content-Range: ", "\r\n"), row.range);
    EXPECT_TRUE(bodyOf(answer) == row.body) << row.fields << bodyOf(answer).size();
    EXPECT_EQ(between(answer, "Content-Type: ", "\r\n"), row.status == 416 ? "text/plain; charset=utf-8" : "video/mp4");
  }
  EXPECT_EQ(statusOf(get("/videos/none")), 404);
}

TEST_F(ServeTest, AConnectionOutlivesWhateverIsSent) {
  auto page = std::make_unique<PageClient>(port_, cookie_, PageClient::Greeting{.page = "p"});
  page->next();
  const std::pair<std::string, const char*> rows[] = {
      {"{", "not a JSON object"},
      {R"({"id":"0"})" + std::string(300'000, ' '), R"({"id":"0","reject":{"message":"The message is too large"}})"},
      {R"({"id":"1","plugin":"TarnBridge","method":"cleanupFiles"})", "not implemented"},
      {R"({"id":"2","plugin":"TarnBridge","method":"checkPermissions"})", "not implemented"},
      {R"({"id":"3","plugin":"TarnBridge","method":"saveVideo","options":{"url":5}})", "Must provide the data path"},
      {R"({"id":"4","plugin":"TarnBridge","method":"setDownloadLimit","options":{"limit":1e30}})", "limit is required"},
      {R"({"id":"5","plugin":"TarnBridge","method":"setDownloadLimit","options":{"limit":18446744073709551615}})",
       "limit is required"},
      {R"({"id":"6","plugin":"TarnBridge","method":"setDownloadLimit","options":{"limit":"3"}})", "limit is required"},
      {R"({"id":"7","plugin":"TarnBridge","method":"setDownloadLimit","options":{"limit":50}})",
       R"({"id":"7","resolve":{"limit":10}})"},
  };
  for (const auto& [message, words] : rows) {
    ASSERT_TRUE(page->send(message));
    const std::string answer = page->next();
    EXPECT_NE(answer.find(words), std::string::npos) << message.substr(0, 100) << "\n" << answer;
  }
  ASSERT_TRUE(page->send("{\"id\":\"\xff\"}", false));
  EXPECT_NE(page->next().find("not a JSON object"), std::string::npos);

  // What breaks the WebSocket's own rules ends the connection, and no other.
  PageClient other(port_, cookie_, {.page = "other"});
  other.next();
  page->send("{\"id\":\"\xff\"}");
  EXPECT_EQ(page->next(), "");
  page = std::make_unique<PageClient>(port_, cookie_, PageClient::Greeting{.page = "p"});
  page->next();
  page->send(std::string(2 << 20, 'x'));
  EXPECT_EQ(page->next(), "");
  other.command("1", "getDownloadLimit");
  EXPECT_EQ(other.next(), R"({"id":"1","resolve":{"limit":10,"queued":0}})");

  // So does not reading what has been asked for.
  PageClient slow(port_, cookie_, {.page = "slow"}, 4096);
  const std::string bad = R"({"id":")" + std::string(120, 'i') + R"("})";
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  bool isCutOff = false;
  while (!isCutOff && std::chrono::steady_clock::now() < deadline) isCutOff = !slow.send(bad);
  EXPECT_TRUE(isCutOff);
  other.command("2", "getDownloadLimit");
  EXPECT_EQ(other.next(), R"({"id":"2","resolve":{"limit":10,"queued":0}})");
}

TEST_F(ServeTest, ConnectionsAreCounted) {
  std::vector<std::unique_ptr<PageClient>> pages;
  for (int i = 0; i < 64; ++i) {
    pages.push_back(std::make_unique<PageClient>(port_, cookie_, PageClient::Greeting{.page = std::to_string(i)}));
  }
  EXPECT_EQ(askServer(port_, "GET / HTTP/1.1\r\n\r\n"), "");
  EXPECT_NE(pages.front()->next().find("hello"), std::string::npos);
  pages.clear();
  for (int i = 0; i < 100 && get("/").empty(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(statusOf(get("/")), 200);
}

TEST_F(ServeTest, APageThatComesBackMissesNothing) {
  source_.serve("/clip.mp4", ServedFile::of(video()), {}, {.bytesPerSecond = videoSize / 3});
  auto page = std::make_unique<PageClient>(port_, cookie_, PageClient::Greeting{.page = "p"});
  PageClient other(port_, cookie_, {.page = "other"});
  const std::string epoch = between(page->next(), R"("epoch":")", "\"");
  saveVideo(*page, "1", "/clip.mp4");
  page.reset();
  std::string lastEvent = other.nextWith("downloadComplete");
  EXPECT_NE(lastEvent.find("STATUS_SUCCESSFUL"), std::string::npos) << lastEvent;
  const int64_t last = std::stoll(between(lastEvent, R"({"seq":)", ","));
  EXPECT_GE(last, 3) << "an event each second";

  page = std::make_unique<PageClient>(port_, cookie_, PageClient::Greeting{"p", epoch, 0});
  EXPECT_NE(page->next().find(R"("replay":"complete")"), std::string::npos);
  for (int64_t seq = 1; seq <= last; ++seq)
    EXPECT_TRUE(page->next().starts_with("{\"seq\":" + std::to_string(seq) + ","));
  saveVideo(*page, "1", "/clip.mp4");
  EXPECT_TRUE(page->next().starts_with(R"({"id":"1","resolve":{"status":)"));
  page->command("2", "getDownloadLimit");
  EXPECT_TRUE(page->next().starts_with(R"({"id":"2")"));
  EXPECT_EQ(source_.requests().size(), 1U) << "the command was run once";
}

TEST_F(ServeTest, AKilledServerGoesOnWhereItWas) {
  source_.serve("/clip.mp4", ServedFile::of(video()), {{.bytesPerSecond = videoSize / 4}});
  const std::string token = token_;
  std::string epoch;
  {
    PageClient page(port_, cookie_, {.page = "p"});
    epoch = between(page.next(), R"("epoch":")", "\"");
    saveVideo(page, "1", "/clip.mp4");
    page.nextWith("downloadProgress");
    page.nextWith("downloadProgress");
  }
  server_->signal(SIGKILL);
  server_->wait();
  start();
  EXPECT_EQ(token_, token) << "open pages stay valid";
  PageClient page(port_, cookie_, {"p", epoch, 2});
  EXPECT_NE(page.next().find(R"("replay":"lost")"), std::string::npos);
  for (int i = 0; i < 2000 && savedFiles(home_).empty(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(savedFiles(home_), std::vector<std::string>{"Trips/clip.mp4"});
  EXPECT_EQ(source_.requests().size(), 2U);
  EXPECT_TRUE(source_.requests().back().header("range").starts_with("bytes="));
}

TEST_F(ServeTest, StoredRunsAreAllTakenUpWithoutAPage) {
  server_->signal(SIGTERM);
  server_->wait();
  {
    PosixFileManager files(home_);
    SystemClock clock;
    UserDefaults defaults(files, home_ / "Defaults");
    ProcessingStateManager store(defaults, files, clock);
    for (const int64_t id : {1, 2}) {
      const std::string name = "clip" + std::to_string(id) + ".mp4";
      std::ofstream(home_ / "Documents" / name) << name;
      store.saveState(makeFirstRecord(
          files, clock,
          {.id = id, .filename = name, .album = "Trips", .fileURL = files.documentsDirectory(true) / name}));
    }
  }
  start();
  const std::vector<std::string> all{"Trips/clip1.mp4", "Trips/clip2.mp4"};
  for (int i = 0; i < 1500 && savedFiles(home_) != all; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(savedFiles(home_), all);
}

TEST_F(ServeTest, PagesDriveForegroundAndBackground) {
  const std::string background = "App entered background";
  const std::string foreground = "App entering foreground - checking";
  waitForLog(background, 1);  // no page has come
  auto page = std::make_unique<PageClient>(port_, cookie_, PageClient::Greeting{.page = "p"});
  page->send(R"({"visible":true})");
  waitForLog(foreground, 1);
  page->send(R"({"visible":false})");
  waitForLog(background, 2);
  page->send(R"({"visible":true})");
  waitForLog(foreground, 2);
  page.reset();
  page = std::make_unique<PageClient>(port_, cookie_, PageClient::Greeting{.page = "p"});
  page->send(R"({"visible":true})");
  page->command("1", "getDownloadLimit");
  page->nextWith(R"("id":"1")");
  EXPECT_EQ(logged(background), 2U) << "loading anew is no leaving";
  page.reset();
  waitForLog(background, 3);
  EXPECT_EQ(logged(foreground), 2U);
}

}  // namespace
}  // namespace tarn::test

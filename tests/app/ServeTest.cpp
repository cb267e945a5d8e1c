#include <fmt/format.h>

#include <boost/asio/ip/v6_only.hpp>

#include "RunningServer.h"
#include "download/FirstRecord.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/SHA256.h"
#include "platform/UserDefaults.h"
#include "platform/host/PosixFileManager.h"

namespace tarn::test {
namespace {

using asio::ip::tcp;
using boost::system::error_code;

using ServeTest = RunningServer;

TEST_F(ServeTest, AnAddressInAFileIsForItsOwnerAloneAndForAsLongAsTheServerRuns) {
  const Path file = put(place_ / "address", "of a server that was killed");
  const Child second =
      startOther(tarnCommand(place_ / "other", {"serve", "--web", place_ / "web", "--address-file", file}));
  ASSERT_TRUE(eventually([&] { return contentOf(file).ends_with('\n'); }));
  const std::string host = between(contentOf(file), "http://", "/"), port = host.substr(10);
  const std::string entry = between(contentOf(file), host, "\n");
  const std::string request = "GET " + entry + " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
  EXPECT_EQ(statusOf(askServer(static_cast<uint16_t>(std::stoi(port)), request)), 200);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms(0600));
  EXPECT_EQ(second->output(), "");
  second->signal(SIGTERM);
  EXPECT_EQ(second->wait(), 130) << second->errors();
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(ServeTest, TheLinkLetsABrowserIn) {
  const std::string entry = getAsStranger("/?token=" + token_);
  EXPECT_THAT(base_, testing::MatchesRegex("/[0-9a-f]{32}/"));
  EXPECT_THAT(cookie_, testing::MatchesRegex("tarn-" + std::to_string(port_) + "=[0-9a-f]{64}"));
  EXPECT_EQ(between(entry, "Set-Cookie: ", "\r\n"), cookie_ + "; HttpOnly; SameSite=Strict; Path=" + base_);
  EXPECT_THAT(entry, HasSubstr("url=" + base_ + "\""));
  for (const char* target : {"", "bridge/native.js", "albums"}) {
    EXPECT_THAT(get(target), Not(HasSubstr(token_))) << "no page learns the token of the home";
  }
  EXPECT_THAT(get(""), HasSubstr(R"(<head><script src="bridge/native.js"></script><title>)"));
  const std::string script = get("bridge/native.js");
  EXPECT_THAT(bodyOf(script), testing::StartsWith(R"(const tarnPlugins = [{"name":"TarnBridge","methods":[)"));
  EXPECT_THAT(script, Not(HasSubstr("notTheHosts"))) << "a folder's own script is not the bridge";
}

TEST_F(ServeTest, ASecondOneTellsTheAddressOfTheFirstOrWhatIsInItsWay) {
  EXPECT_EQ(expect(0, {"serve", "--port", "1"}, "--port and --web change nothing").output, tarn_->output());

  home_ = place_ / "other";
  server_.serve("/held", ServedFile::of(recording()), {{.stallAfter = 1000}});
  const Child save = CommandTest::start({"save", server_.url("/held")});
  ASSERT_TRUE(eventually([&] { return !server_.requests().empty(); }));
  EXPECT_EQ(expect(75, {"serve"}, "Another tarn works in").output, "");
  home_ = place_ / "third";
  expect(1, {"serve", "--web", place_ / "web", "--port", std::to_string(port_)}, "cannot be had");
  expect(1, {"serve", "--web", place_ / "none"}, "The page is not built");
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
  home_ = place_ / "other";
  expect(1, {"serve", "--web", place_ / "web", "--port", taken}, "Port " + taken + " cannot be had");
}

TEST_F(ServeTest, AStartHasASecretOfItsOwnAndAnOpenPageRejoins) {
  const std::string oldBase = base_, oldCookie = cookie_;
  const std::string key = between(bodyOf(get("bridge/native.js")), "const tarnPageKey = \"", "\"");
  tarn_->signal(SIGTERM);
  tarn_->wait();
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

TEST_F(ServeTest, CommandsBesideItUseItsEngine) {
  const auto page = connect("p");
  const auto startSave = [&](const std::string& path) {
    server_.serve(path, ServedFile::of(recording()), {{.stallAfter = 1000}});
    auto save = CommandTest::start({"save", server_.url(path), "--album", "Trips", "--json"});
    EXPECT_THAT(page->next("STATUS_RUNNING"), HasSubstr(path.substr(1)));
    return save;
  };
  const auto cancelled = startSave("/cancelled");
  const std::string id = between(page->next("STATUS_RUNNING"), "\"id\":", ",");
  page->command("cancel", {{"id", static_cast<int64_t>(std::stoll(id))}});
  EXPECT_EQ(cancelled->wait(), 1);
  EXPECT_THAT(cancelled->errors(), HasSubstr("somebody cancelled the download"));

  const auto interrupted = startSave("/interrupted");
  interrupted->signal(SIGINT);
  EXPECT_EQ(interrupted->wait(), 130) << interrupted->errors();
  const auto saved = startSave("/saved");
  expect(0, {"library"});
  server_.release();
  EXPECT_EQ(saved->wait(), 0) << saved->errors();
  EXPECT_THAT(page->next("downloadComplete"), HasSubstr("STATUS_SUCCESSFUL"));
  expect(0, {"resume"});
  EXPECT_EQ(savedFiles(home_), (std::vector<std::string>{"Trips/interrupted.mp4", "Trips/saved.mp4"}));
}

TEST_F(ServeTest, StoredRunsAreAllTakenUpWithoutAPage) {
  tarn_->signal(SIGTERM);
  tarn_->wait();
  PosixFileManager files(home_);
  SystemClock clock;
  UserDefaults defaults(files, home_ / "Defaults");
  ProcessingStateManager store(defaults, files, clock);
  const auto leave = [&](int64_t id) {
    const Path file = put(home_ / "Documents" / ("clip" + std::to_string(id)), "FLV\1");
    store.saveState(makeFirstRecord(files, clock, id, file, {.url = "", .album = "Trips"}));
  };
  leave(1);
  leave(2);
  start();
  EXPECT_TRUE(eventually([&] { return savedFiles(home_) == std::vector<std::string>{"Trips/clip1", "Trips/clip2"}; }));
}

}  // namespace
}  // namespace tarn::test

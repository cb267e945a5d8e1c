#include <fmt/format.h>
#include <gmock/gmock.h>

#include <boost/asio/ip/v6_only.hpp>
#include <fstream>

#include "RunningServer.h"
#include "download/FirstRecord.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/Capacitor.h"
#include "platform/SHA256.h"
#include "platform/UserDefaults.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultServer.h"

namespace tarn::test {
namespace {

using asio::ip::tcp;
using boost::system::error_code;

constexpr size_t videoSize = 3'000'000;

Bytes video() {
  Bytes bytes(videoSize);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  std::ranges::copy(std::string_view("OggS\0", 5), bytes.begin());  // a container is taken as it comes
  return bytes;
}

using ServeTest = RunningServer;

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

TEST_F(ServeTest, ASavedVideoIsListedAndServed) {
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
  EXPECT_EQ(between(get("videos/" + id), "Content-Type: ", "\r\n"), "video/mp4") << "it is never run";
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

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <filesystem>

#include "serve/HomeToken.h"
#include "serve/detail/HostRoutes.h"
#include "serve/detail/HostScript.h"
#include "serve/detail/PageHub.h"
#include "serve/detail/PagePresence.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::_;
using testing::ElementsAre;

TEST(ServeRulesTest, TheTokenIsMadeOnceAndForItsOwnerAlone) {
  TempDirectory home;
  const std::string token = homeToken(home.path());
  const Path file = home / "token";
  EXPECT_EQ(std::filesystem::status(file).permissions(), std::filesystem::perms(0600));
  EXPECT_EQ(token.size(), 64U);
  EXPECT_EQ(homeToken(home.path()), token);

  std::filesystem::permissions(file, std::filesystem::perms(0604));
  const std::string second = homeToken(home.path());
  EXPECT_NE(second, token) << "others may have read it";
  std::filesystem::resize_file(file, 10);
  EXPECT_NE(homeToken(home.path()), second);
}

TEST(ServeRulesTest, TheHostsScriptComesFirst) {
  const std::string script = R"(<script src="bridge/native.js"></script>)";
  EXPECT_EQ(withHostScript("<html><header></header><HEAD\nlang=x><script>"),
            "<html><header></header><HEAD\nlang=x>" + script + "<script>");
  EXPECT_EQ(withHostScript("<p>no head"), script + "<p>no head");
}

TEST(ServeRulesTest, TheAppIsInTheForegroundWhileAnyPageIsVisible) {
  const PagePresence::Time start{}, end = start + PagePresence::grace;
  PagePresence presence(start);
  EXPECT_EQ(presence.nextChange(start), end) << "a page has some time to come";
  EXPECT_FALSE(presence.isActive(end));
  presence.show("p", true);
  presence.show("other", true);
  presence.show("p", false);
  EXPECT_TRUE(presence.isActive(end));
  EXPECT_FALSE(presence.nextChange(end));
  presence.leave("p", end);
  presence.leave("other", end);
  EXPECT_TRUE(presence.isActive(end)) << "it may be loading anew";
  EXPECT_EQ(presence.nextChange(end), end + PagePresence::grace);
  presence.show("other", false);
  EXPECT_FALSE(presence.isActive(end)) << "it has come back, unseen";
}

/// What a request calls, and with which options; or the status of its refusal.
std::string calledBy(const char* method, const char* target, const char* body) {
  const auto asked = HostRoutes::callFor(method, RequestTarget::parse(target).value(), body);
  const auto* const call = std::get_if<HostCall>(&asked);
  return call ? call->method + " " + call->options.json() : std::to_string(std::get<Refusal>(asked).status);
}

TEST(ServeRulesTest, EachRouteCallsItsMethodWithWhatItMayTake) {
  using Words = const char*;
  const std::tuple<Words, Words, Words, Words> rows[] = {
      {"GET", "/history", "", "getHistory {}"},
      {"GET", "/history?limit=5&id=7", "", R"(getHistory {"limit":5})"},
      {"GET", "/history?limit=5x", "", "400"},
      {"GET", "/downloads", "", "getTransfers {}"},
      {"POST", "/library/A%2FB", R"({"action":"rename","filename":"b.mp4","path":"/etc/passwd"})",
       R"(changeAsset {"assetId":"A/B","action":"rename","filename":"b.mp4"})"},
      {"POST", "/library/A", R"({"action":"open","path":"/etc"})", R"(showAsset {"assetId":"A","action":"open"})"},
      {"POST", "/downloads", R"({"url":"http://a/b","takesServersName":true,"id":7,"transfer":{"headers":["A: b"]}})",
       R"(saveVideo {"url":"http://a/b","takesServersName":true})"},
      {"POST", "/downloads", R"({"url":"http://a/b","skipAudioFix":1})", "400"},
      {"POST", "/downloads/12", R"({"action":"retryAsItCame"})",
       R"(changeDownload {"id":12,"action":"retryAsItCame"})"},
      {"POST", "/history", R"({"clear":true})", "clearHistory {}"},
      {"POST", "/history", R"({"clear":12})", R"(clearHistory {"id":12})"},
      {"POST", "/history", R"({"clear":false})", "400"},
      {"POST", "/library/A", R"({"action":"erase"})", "400"},
      {"POST", "/library/A", R"({"action":"rename","filename":7})", "400"},
      {"POST", "/library/", R"({"action":"remove"})", "404"},
      {"POST", "/downloads/1x", R"({"action":"cancel"})", "404"},
  };
  for (const auto& [method, target, body, called] : rows) {
    EXPECT_EQ(calledBy(method, target, body), called) << target << body;
  }
}

struct FakeConnection : PageConnection {
  std::vector<std::string> texts;
  bool isClosed = false;

  void send(PageText text) override { texts.push_back(*text); }
  void close() override { isClosed = true; }
};

/// A hub with one page whose commands are run by hand.
class PageHubTest : public testing::Test {
 protected:
  std::shared_ptr<FakeConnection> connect(const std::string& page, const std::string& epoch, uint64_t seen) {
    auto connection = std::make_shared<FakeConnection>();
    hub_.connect({page, epoch, seen}, connection);
    return connection;
  }
  void sendCommand(const std::shared_ptr<FakeConnection>& connection, const std::string& id) {
    hub_.receive("p", *connection, R"({"id":")" + id + R"(","plugin":"P","method":"m"})");
  }
  void answer(const std::string& id) { hub_.answer("p", id, {.resolved = true, .data = {}, .message = {}}); }

  const PagePresence::Time start_{};
  std::vector<std::string> calls_;
  PageHub hub_{"P", "E", start_,
               [this](const std::string&, const PageCommand& command) { calls_.push_back(command.id); }};
};

TEST_F(PageHubTest, APageThatComesBackGetsWhatItHasMissed) {
  const uint64_t last = PageHub::ringCapacity + 50;
  const auto first = connect("p", "", 0);
  for (uint64_t i = 1; i <= last; ++i) hub_.sendEvent("e", {{"i", static_cast<int64_t>(i)}});
  EXPECT_EQ(first->texts[0], R"({"hello":{"epoch":"E","seq":0,"replay":"none"}})");
  EXPECT_EQ(first->texts.at(50), R"({"seq":50,"plugin":"P","event":"e","data":{"i":50}})");
  const auto oldest = connect("p", "E", 50);
  EXPECT_TRUE(first->isClosed);
  std::vector<std::string> replayed{fmt::format(R"({{"hello":{{"epoch":"E","seq":{},"replay":"complete"}}}})", last)};
  replayed.insert(replayed.end(), first->texts.begin() + 51, first->texts.end());
  EXPECT_EQ(oldest->texts, replayed);
  EXPECT_EQ(connect("p", "E", last)->texts.size(), 1U);
  for (const auto& [epoch, seen] : {std::pair("E", uint64_t{49}), {"E", last + 1}, {"other", last}}) {
    EXPECT_THAT(connect("p", epoch, seen)->texts, ElementsAre(testing::HasSubstr(R"("replay":"lost"})")));
  }
}

TEST_F(PageHubTest, ACommandIsRunOnceAndAnsweredOnceOnEachConnection) {
  const auto first = connect("p", "", 0);
  sendCommand(first, "a");
  sendCommand(first, "b");
  answer("a");
  sendCommand(first, "a");  // the answer has crossed the command
  const auto second = connect("p", "E", 0);
  sendCommand(first, "late");  // a connection that was replaced says nothing any more
  sendCommand(second, "a");
  sendCommand(second, "b");
  answer("b");
  answer("b");
  hub_.disconnect("p", *first, start_);
  sendCommand(second, "b");
  hub_.disconnect("p", *second, start_);
  const auto third = connect("p", "E", 0);
  sendCommand(third, "b");

  const std::string a = R"({"id":"a","resolve":{}})", b = R"({"id":"b","resolve":{}})";
  EXPECT_THAT(calls_, ElementsAre("a", "b"));
  EXPECT_THAT(first->texts, ElementsAre(_, a));
  EXPECT_THAT(second->texts, ElementsAre(_, a, b));
  EXPECT_THAT(third->texts, ElementsAre(_, b));
}

TEST_F(PageHubTest, WhatIsKeptForPagesIsBounded) {
  auto page = connect("p", "", 0);
  for (size_t i = 0; i <= PageSession::mostRunning; ++i) sendCommand(page, std::to_string(i));
  EXPECT_EQ(calls_.size(), PageSession::mostRunning);
  EXPECT_NE(page->texts.back().find("Too many commands"), std::string::npos);
  for (const std::string& id : std::vector(calls_)) {
    hub_.answer("p", id, {.resolved = true, .data = {{"text", std::string(10'000, 'x')}}, .message = {}});
  }
  const auto callsAgain = [&](const std::string& id) {
    const size_t before = calls_.size();
    page = connect("p", "E", 0);
    sendCommand(page, id);
    return calls_.size() > before;
  };
  EXPECT_FALSE(callsAgain(calls_.back()));
  EXPECT_TRUE(callsAgain(calls_.front())) << "an answer of long ago is forgotten";
  hub_.disconnect("p", *page, start_);
  for (size_t i = 0; i < PageHub::mostPages; ++i) {
    const std::string name = "other" + std::to_string(i);
    hub_.disconnect(name, *connect(name, "", 0), start_);
  }
  EXPECT_TRUE(callsAgain(calls_[PageSession::mostRunning - 1])) << "so is the page that was away longest";
}

}  // namespace
}  // namespace tarn::test

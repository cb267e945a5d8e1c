#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "serve/HomeToken.h"
#include "serve/detail/ByteRange.h"
#include "serve/detail/HostScript.h"
#include "serve/detail/PageHub.h"
#include "serve/detail/PagePresence.h"
#include "serve/detail/ServedFolder.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::_;
using testing::ElementsAre;

TEST(ServeRulesTest, AnEmptyFileHasNoRange) {
  const ByteRange never{ByteRange::Kind::unsatisfiable, 0, 0};
  for (const char* field : {"bytes=0-", "bytes=-5"}) EXPECT_EQ(ByteRange::of(field, 0), never) << field;
}

TEST(ServeRulesTest, TypesAreThoseOfThePlaceThatServesThem) {
  EXPECT_EQ(contentType("/x/APP.JS"), "text/javascript; charset=utf-8");
  EXPECT_EQ(videoContentType("clip.html"), "video/mp4") << "a saved file is never run";
}

TEST(ServeRulesTest, TheTokenIsMadeOnceAndForItsOwnerAlone) {
  TempDirectory home;
  const std::string token = homeToken(home.path());
  const Path file = home / "token";
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(file).permissions(), perms::owner_read | perms::owner_write);
  EXPECT_EQ(token.size(), 64U);
  EXPECT_EQ(homeToken(home.path()), token);

  std::filesystem::permissions(file, perms::others_read, std::filesystem::perm_options::add);
  const std::string second = homeToken(home.path());
  EXPECT_NE(second, token) << "others may have read it";
  std::filesystem::resize_file(file, 10);
  EXPECT_NE(homeToken(home.path()), second);

  EXPECT_TRUE(isSameSecret("abc", "abc"));
  for (const char* wrong : {"", "ab", "abd", "abcc", "abcabc", "Abc"}) EXPECT_FALSE(isSameSecret("abc", wrong));
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
  auto first = connect("p", "", 0);
  for (int i = 1; i <= 300; ++i) hub_.sendEvent("e", {{"i", i}});
  EXPECT_EQ(first->texts[0], R"({"hello":{"epoch":"E","seq":0,"replay":"none"}})");
  EXPECT_EQ(first->texts.at(300), R"({"seq":300,"plugin":"P","event":"e","data":{"i":300}})");

  const auto oldest = connect("p", "E", 300 - PageHub::ringCapacity);
  EXPECT_TRUE(first->isClosed);
  ASSERT_EQ(oldest->texts.size(), 1 + PageHub::ringCapacity);
  EXPECT_EQ(oldest->texts[0], R"({"hello":{"epoch":"E","seq":300,"replay":"complete"}})");
  EXPECT_EQ(oldest->texts[1], first->texts[300 - PageHub::ringCapacity + 1]);
  EXPECT_EQ(oldest->texts.back(), first->texts.back());
  EXPECT_EQ(connect("p", "E", 300)->texts.size(), 1U);

  const std::pair<const char*, uint64_t> lost[] = {{"E", 299 - PageHub::ringCapacity}, {"E", 301}, {"other", 300}};
  for (const auto& [epoch, seen] : lost) {
    EXPECT_THAT(connect("p", epoch, seen)->texts, ElementsAre(R"({"hello":{"epoch":"E","seq":300,"replay":"lost"}})"));
  }
}

TEST_F(PageHubTest, ACommandIsRunOnceAndAnsweredOnceOnEachConnection) {
  auto first = connect("p", "", 0);
  sendCommand(first, "a");
  sendCommand(first, "b");
  answer("a");
  sendCommand(first, "a");  // the answer has crossed the command
  auto second = connect("p", "E", 0);
  sendCommand(first, "late");  // a connection that was replaced says nothing any more
  sendCommand(second, "a");
  sendCommand(second, "b");
  answer("b");
  answer("b");
  hub_.disconnect("p", *first, start_);
  sendCommand(second, "b");
  hub_.disconnect("p", *second, start_);
  auto third = connect("p", "E", 0);
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
  page = connect("p", "E", 0);
  sendCommand(page, calls_.back());
  sendCommand(page, calls_.front());
  EXPECT_EQ(calls_.size(), PageSession::mostRunning + 1) << "an answer of long ago is forgotten";

  hub_.disconnect("p", *page, start_);
  for (size_t i = 0; i < PageHub::mostPages; ++i) {
    const std::string name = "other" + std::to_string(i);
    hub_.disconnect(name, *connect(name, "", 0), start_);
  }
  page = connect("p", "E", 0);
  sendCommand(page, calls_[PageSession::mostRunning - 1]);
  EXPECT_EQ(calls_.size(), PageSession::mostRunning + 2) << "so is the page that was away longest";
}

}  // namespace
}  // namespace tarn::test

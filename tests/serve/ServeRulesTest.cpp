#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/Error.h"
#include "serve/HomeToken.h"
#include "serve/detail/ByteRange.h"
#include "serve/detail/HostScript.h"
#include "serve/detail/PageHub.h"
#include "serve/detail/PagePresence.h"
#include "serve/detail/ServedFolder.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::_;
using testing::ElementsAre;

TEST(ServeRulesTest, RangesAsRFC9110) {
  using Kind = ByteRange::Kind;
  constexpr uint64_t size = 5 << 20;
  constexpr uint64_t most = ByteRange::largestPart;
  const ByteRange whole{Kind::whole, 0, size};
  const ByteRange never{Kind::unsatisfiable, 0, 0};
  const std::pair<const char*, ByteRange> rows[] = {
      {"bytes=0-", {Kind::part, 0, most}},
      {"bytes=0-0", {Kind::part, 0, 1}},
      {"bytes=100-199", {Kind::part, 100, 100}},
      {"bytes=5242879-99999999999999999999999", {Kind::part, size - 1, 1}},
      {"bytes=-100", {Kind::part, size - 100, 100}},
      {"bytes=-99999999", {Kind::part, 0, most}},
      {"bytes=5242880-", never},
      {"bytes=99999999999999999999999-", never},
      {"bytes=-0", never},
      {"bytes=2-1", whole},
      {"bytes=0-1,3-4", whole},
      {"bytes= 0-1", whole},
      {"bytes=+0-1", whole},
      {"bytes=0x0-1", whole},
      {"items=0-1", whole},
  };
  for (const auto& [field, expected] : rows) EXPECT_EQ(ByteRange::of(field, size), expected) << field;
  EXPECT_EQ(ByteRange::of(std::nullopt, size), whole);
  EXPECT_EQ(ByteRange::of("bytes=0-", 0), never);
  EXPECT_EQ(ByteRange::of("bytes=-5", 0), never);
}

TEST(ServeRulesTest, OnlyTheFoldersOwnFilesAreFound) {
  TempDirectory place;
  EXPECT_THROW(ServedFolder(place / "web"), Error);
  std::filesystem::create_directories(place / "web/assets/deep");
  std::ofstream(place / "web/assets/a b.js") << "x";
  for (const std::string& name : words("web/index.html web/assets/deep/x.css web/.hidden secret")) {
    std::ofstream(place / name) << name;
  }
  std::filesystem::create_symlink(place / "secret", place / "web/link.js");
  std::filesystem::create_directory_symlink(place.path(), place / "web/up");
  std::filesystem::create_symlink("deep/x.css", place / "web/assets/inside.css");
  const ServedFolder folder(place / "web");
  for (const std::string& path : words("/index.html /assets/a%20b.js /assets/deep/x.css /assets/inside.css")) {
    EXPECT_TRUE(folder.find(path)) << path;
  }
  const std::string bad =
      "/../secret /%2e%2e/secret /%2E%2E%2Fsecret /assets/../../secret /assets/..%2f..%2fsecret /..\\secret /.hidden "
      "/link.js /up/secret //etc/passwd /%2fetc/passwd /assets / /index.html%00.js /index.html/ /./index.html "
      "/%zz index.html";
  for (const std::string& path : words(bad)) EXPECT_FALSE(folder.find(path)) << path;
  EXPECT_FALSE(folder.find(""));
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

TEST(ServeRulesTest, WhateverAPageSendsIsUnderstoodOrRefused) {
  const std::pair<std::string, const char*> rows[] = {
      {"", "not a JSON object"},
      {"[1]", "not a JSON object"},
      {"{\"id\":\"\xff\"}", "not a JSON object"},
      {R"({"id":"1","plugin":"P","method":"m","options":)" + std::string(5000, '['), "not a JSON object"},
      {R"({"id":"1"})" + std::string(largestPageMessage, ' '), "too large"},
      {R"({"id":7,"plugin":"P","method":"m"})", "\"id\""},
      {R"({"id":"","plugin":"P","method":"m"})", "\"id\""},
      {R"({"id":")" + std::string(129, 'i') + R"(","plugin":"P","method":"m"})", "\"id\""},
      {R"({"id":"1","plugin":"P","method":5})", "\"plugin\" and \"method\""},
      {R"({"id":"1","plugin":"P","method":"m","options":null})", "\"options\""},
      {R"({"visible":1})", "\"visible\""},
  };
  for (const auto& [text, words] : rows) {
    const auto message = parsePageMessage(text);
    const auto* bad = std::get_if<BadMessage>(&message);
    ASSERT_TRUE(bad) << text.substr(0, 100);
    EXPECT_NE(bad->words.find(words), std::string::npos) << bad->words;
    EXPECT_TRUE(JSObject::parse(refusalText(*bad)));
  }
  EXPECT_TRUE(std::get<PageVisibility>(parsePageMessage(R"({"visible":true})")).isVisible);
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

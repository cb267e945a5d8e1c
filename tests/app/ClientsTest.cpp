#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>
#include <csignal>
#include <set>

#include "app/CommandTest.h"
#include "engine/Home.h"
#include "support/AnotherUser.h"

// Several commands in one home: the process that owns it is the engine of all.

namespace tarn::test {
namespace {

namespace asio = boost::asio;
using local = asio::local::stream_protocol;
using boost::system::error_code;

class ClientsTest : public CommandTest {
 protected:
  static std::vector<std::string> save(const FaultServer& server, const std::string& path) {
    return {"save", server.url(path), "--album", "Trips"};
  }

  std::vector<std::string> serve() const {
    put(place_ / "web/index.html", "<!doctype html>");
    return {"serve", "--web", place_ / "web"};
  }
};

TEST_F(ClientsTest, SavesAtOnceEndAsOneAfterTheOther) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  for (const size_t count : {2, 10}) {
    // The last home has a path for which no socket's address has room.
    home_ = place_ / (count == 10 ? std::string(120, 'h') : "home");
    std::vector<Child> saves;
    for (size_t i = 0; i < count; ++i) saves.push_back(start(save(server_, "/clip.mp4")));
    std::set<std::string> told, expected;
    for (size_t i = 0; i < count; ++i) {
      EXPECT_EQ(saves[i]->wait(), 0);
      EXPECT_THAT(saves[i]->errors(), Not(HasSubstr("tarn:")));
      told.insert(saves[i]->output());
      expected.insert((home_ / "Photos/Trips" / (i == 0 ? "clip.mp4" : fmt::format("clip {}.mp4", i + 1))).string() +
                      "\n");
    }
    EXPECT_EQ(told, expected);
    EXPECT_EQ(savedFiles(home_).size(), count);
    EXPECT_EQ(leftIn(home_), "");
    EXPECT_FALSE(fs::exists(home_ / ".socket"));
  }
}

TEST_F(ClientsTest, WhateverBecomesOfTheEngineItsClientsGoOn) {
  struct Row {
    const char* name;
    std::vector<int> signals;
    int exitCode;
    ptrdiff_t requests;  ///< for each video of the clients; another engine asks again
    const char* words;   ///< of the engine, at each signal
  };
  const Row rows[] = {
      {"killed", {SIGKILL}, killedBySIGKILL, 2, ""},
      {"interrupted", {SIGINT}, 130, 1, "`tarn resume` goes on with it.\ntarn: Other commands still use"},
      {"interrupted twice", {SIGINT, SIGTERM}, 130, 2, "Interrupt again to end it"},
      {"serve", {SIGTERM}, 130, 2, "The next start goes on with it"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const bool isServe = row.name == std::string_view("serve");
    home_ = place_ / row.name;
    FaultServer server;
    for (const char* path : {"/a.mp4", "/b.mp4", "/c.mp4"}) {
      server.serve(path, ServedFile::of(recording()), {{.stallAfter = 1000}});
    }
    const auto requests = [&](const char* path) {
      return std::ranges::count(server.requests(), path, &ReceivedRequest::target);
    };
    const Child engine = start(isServe ? serve() : save(server, "/a.mp4"));
    ASSERT_TRUE(eventually([&] { return fs::exists(home_ / ".socket"); })) << engine->errors();
    const Child clients[] = {start(save(server, "/b.mp4")), start(save(server, "/c.mp4"))};
    // An engine that has asked for a video, and is killed before it has stored that, is asked for it again.
    ASSERT_TRUE(eventually([&] {
      const std::string stored = contentOf(home_ / "Defaults/ActiveDownloads");
      return std::ranges::all_of(std::array{"/b.mp4", "/c.mp4"}, [&](const char* path) {
        return requests(path) == 1 && stored.find(path) != std::string::npos;
      });
    }));
    for (const int number : row.signals) {
      engine->signal(number);
      EXPECT_TRUE(eventually([&] { return engine->errors().find(row.words) != std::string::npos; }));
    }
    if (row.requests == 2) engine->wait();
    server.release();
    for (const Child& client : clients) EXPECT_EQ(client->wait(), 0) << client->errors();
    EXPECT_EQ(clients[0]->output(), (home_ / "Photos/Trips/b.mp4").string() + "\n");
    EXPECT_EQ(engine->wait(), row.exitCode) << engine->errors();
    for (const char* path : {"/b.mp4", "/c.mp4"}) EXPECT_EQ(requests(path), row.requests);
    expect(0, {"resume"});
    EXPECT_EQ(savedFiles(home_).size(), isServe ? 2U : 3U);
    EXPECT_EQ(leftIn(home_), "");
  }
}

/// A connection to the socket of a home, which speaks as it likes.
class RawClient {
 public:
  explicit RawClient(const Path& home) { socket_.connect((home / ".socket").string()); }

  void send(const std::string& text) {
    error_code gone;
    asio::write(socket_, asio::buffer(text), gone);
  }

  /// The next line; empty when the connection is gone.
  std::string next() {
    error_code gone;
    const size_t size = asio::read_until(socket_, asio::dynamic_buffer(received_), '\n', gone);
    std::string line = received_.substr(0, size == 0 ? 0 : size - 1);
    received_.erase(0, size);
    return line;
  }

 private:
  asio::io_context context_;
  local::socket socket_{context_};
  std::string received_;
};

TEST_F(ClientsTest, TheSocketOutlivesWhateverIsSentAndIsForItsUserAlone) {
  const Child engine = start(serve());
  ASSERT_TRUE(eventually([&] { return !engine->output().empty(); })) << engine->errors();
  const Path path = home_ / ".socket";
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
  RawClient client(home_);
  EXPECT_EQ(client.next(), R"({"protocol":1})");
  EXPECT_THAT(client.next(), HasSubstr("hello"));
  const std::pair<std::string, const char*> rows[] = {
      {"x", "not a JSON object"},
      {std::string(300'000, ' ') + R"({"id":"1"})", "too large"},
      {R"({"id":"2","plugin":"Other","method":"m"})", "not implemented"},
      {R"({"id":"3","plugin":"TarnHost","method":"getOutcome"})", "No such download"},
      {R"({"id":"4","plugin":"TarnHost","method":"getStoredWork"})", R"("runs":[])"},
  };
  for (const auto& [text, answer] : rows) {
    client.send(text + "\n");
    EXPECT_THAT(client.next(), HasSubstr(answer));
  }
  RawClient(home_).send(R"({"id":"1","plugin":"TarnBridge","method":"cancelAllDo)");
  client.send(std::string(2 << 20, 'x'));
  EXPECT_EQ(client.next(), "") << "a line without end";

  for (const auto& [place, mode] : {std::pair(place_.path(), 0755), {home_, 0755}, {path, 0666}}) {
    fs::permissions(place, fs::perms(mode));
  }
  const AnotherUser user;
  EXPECT_EQ(RawClient(home_).next().empty(), user.isOne());
}

/// What owns a home and listens at its socket as an engine does, and speaks as a test likes.
struct FakeEngine {
  explicit FakeEngine(const Path& home) : lock(home), listener(context, (home / ".socket").string()) {}

  const HomeLock lock;
  asio::io_context context;
  local::acceptor listener;
};

TEST_F(ClientsTest, ACommandTellsWhomItFinds) {
  FakeEngine engine(home_);
  const auto expectRefusal = [&](const std::string& greeting, const char* refusal, int code) {
    const Child client = start({"resume"});
    local::socket socket = engine.listener.accept();
    error_code isGone;  // a client that trusts nobody here has left by now
    asio::write(socket, asio::buffer(greeting + "\n"), isGone);
    EXPECT_EQ(client->wait(), code);
    EXPECT_THAT(client->errors(), HasSubstr(refusal));
  };
  expectRefusal(R"({"protocol":99})", "Another version of tarn works in", 75);
  {
    const AnotherUser user;
    if (!user.isOne()) return;
    ::listen(engine.listener.native_handle(), 1);
  }
  expectRefusal("", "Another user listens at", 1);
}

TEST_F(ClientsTest, AnInterruptEndsACommandThatHasLostItsEngine) {
  FakeEngine engine(home_);
  for (const auto& command : {"resume --json", "library remove clip.mp4 --json"}) {
    const Child client = start(words(command));
    {
      local::socket first = engine.listener.accept();
      asio::write(first, asio::buffer(std::string("{\"protocol\":1}\n")));
      std::string received;
      asio::read_until(first, asio::dynamic_buffer(received), '\n');
    }
    const local::socket next = engine.listener.accept();  // another engine, which lets nobody in
    client->signal(SIGINT);
    EXPECT_EQ(client->wait(), 130);
    EXPECT_THAT(client->errors(), HasSubstr("Interrupted; what has been done is kept."));
    EXPECT_THAT(client->output(), HasSubstr(R"("result":"interrupted")"));
  }
}

TEST_F(ClientsTest, AnInterruptEndsACommandThatOnlyReads) {
  FakeEngine engine(home_);
  const Child downloads = start({"downloads"});
  const local::socket silent = engine.listener.accept();
  downloads->signal(SIGINT);
  EXPECT_EQ(downloads->wait(), 130);
  EXPECT_THAT(downloads->errors(), HasSubstr("Interrupted; nothing was changed."));

  std::vector<std::string> many(20'000, put(place_ / "clip.mp4", recording()));
  many.insert(many.begin(), {"inspect", "--json"});
  const Child inspect = start(many);
  EXPECT_TRUE(eventually([&] { return !inspect->output().empty(); }));
  inspect->signal(SIGTERM);
  EXPECT_EQ(inspect->wait(), 130);
  EXPECT_THAT(inspect->output(), HasSubstr(R"("result":"interrupted")"));
}

TEST_F(ClientsTest, WhatStandsInTheSocketsPlaceStays) {
  server_.serve("/clip.mp4", ServedFile::of(recording()));
  put(home_ / ".socket", "mine");
  expect(0, save(server_, "/clip.mp4"), ".socket is in the way: move it elsewhere");
  EXPECT_EQ(contentOf(home_ / ".socket"), "mine");
}

}  // namespace
}  // namespace tarn::test

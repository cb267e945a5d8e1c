#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <mutex>

#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "serve/BridgeServer.h"
#include "support/Eventually.h"
#include "support/RawHTTP.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::HasSubstr;

/// A plug-in whose methods a test writes.
class ScriptedPlugin : public CAPPlugin {
 public:
  explicit ScriptedPlugin(std::string name) : name_(std::move(name)) {}

  const std::string& identifier() const override { return name_; }
  const std::string& jsName() const override { return name_; }
  const std::vector<CAPPluginMethod>& pluginMethods() const override { return table_; }

  void on(const std::string& method, Handler handler) {
    table_.push_back({method, "promise"});
    handlers_[method] = std::move(handler);
  }

 protected:
  Handler handler(const std::string& method) override { return handlers_[method]; }

 private:
  const std::string name_;
  std::vector<CAPPluginMethod> table_;
  std::map<std::string, Handler> handlers_;
};

/// A server before a host whose methods a test writes, asked by HTTP as a page does.
class HostRequestsTest : public testing::Test {
 protected:
  void start() {
    std::filesystem::create_directories(place_ / "web");
    std::ofstream(place_ / "web/index.html") << "<!doctype html>";
    const BridgeServer::Settings settings{.webFolder = place_ / "web",
                                          .token = std::string(64, 'a'),
                                          .localFolder = place_ / "Local",
                                          .logFile = "/var/log/tarn.log"};
    server_ = std::make_unique<BridgeServer>(files_, photos_, bridge_, host_, settings, [](bool) {});
    port_ = static_cast<uint16_t>(std::stoi(between(server_->entryAddress(), "127.0.0.1:", "/")));
    const std::string name = "127.0.0.1:" + std::to_string(port_);
    const std::string entry = "GET /?token=" + std::string(64, 'a') + " HTTP/1.1\r\nHost: " + name + "\r\n\r\n";
    const std::string answer = askServer(port_, entry);
    base_ = between(answer, "; Path=", "\r\n");
    fields_ =
        "Host: " + name + "\r\nOrigin: http://" + name + "\r\nCookie: " + between(answer, "Set-Cookie: ", ";") + "\r\n";
  }

  std::string get(const std::string& target) {
    return askServer(port_, "GET " + base_ + target + " HTTP/1.1\r\n" + fields_ + "\r\n");
  }

  std::string headOf(const std::string& method, const std::string& target, size_t length) {
    return method + " " + base_ + target + " HTTP/1.1\r\n" + fields_ +
           "Content-Type: application/json\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
  }

  std::string send(const std::string& method, const std::string& target, const std::string& body) {
    return askServer(port_, headOf(method, target, body.size()) + body);
  }

  TempDirectory place_;
  PosixFileManager files_{place_.path()};
  ManualDispatch dispatch_;
  InMemoryPhotoLibrary photos_{files_, dispatch_};
  ScriptedPlugin bridge_{"TarnBridge"};
  ScriptedPlugin host_{"TarnHost"};
  std::unique_ptr<BridgeServer> server_;
  uint16_t port_ = 0;
  std::string base_;
  std::string fields_;
};

TEST_F(HostRequestsTest, EachRouteCallsItsMethodAndGivesItsAnswer) {
  std::mutex mutex;
  std::string called;
  for (const char* method :
       {"getHistory", "getTransfers", "changeAsset", "showAsset", "saveVideo", "changeDownload", "clearHistory"}) {
    host_.on(method, [&, method](const CAPPluginCallPointer& call) {
      std::lock_guard guard(mutex);
      called = method;
      for (const char* key : {"action", "assetId", "filename", "album", "url", "path"}) {
        if (const auto text = call->getString(key)) called += std::string(" ") + key + "=" + *text;
      }
      for (const char* key : {"id", "limit"}) {
        if (const auto number = call->getInt(key)) called += std::string(" ") + key + "=" + std::to_string(*number);
      }
      for (const char* key : {"takesServersName", "skipAudioFix"}) {
        if (call->getBool(key)) called += std::string(" ") + key;
      }
      if (call->getObject("transfer")) called += " transfer";
      call->resolve({{"done", true}});
    });
  }
  start();
  struct Row {
    const char* request;
    const char* target;
    const char* body;
    int status;
    const char* called;
  };
  const Row rows[] = {
      {"GET", "history", "", 200, "getHistory"},
      {"GET", "history?limit=5&id=7", "", 200, "getHistory limit=5"},
      {"GET", "history?limit=5x", "", 400, ""},
      {"GET", "downloads", "", 200, "getTransfers"},
      {"POST", "library/A%2FB", R"({"action":"rename","filename":"b.mp4","path":"/etc/passwd"})", 200,
       "changeAsset action=rename assetId=A/B filename=b.mp4"},
      {"POST", "library/A", R"({"action":"move","album":"Sea"})", 200, "changeAsset action=move assetId=A album=Sea"},
      {"POST", "library/A", R"({"action":"open","path":"/etc"})", 200, "showAsset action=open assetId=A"},
      {"POST", "downloads",
       R"({"url":"http://a/b","album":"Sea","filename":"b.mp4","takesServersName":true,"id":7,)"
       R"("transfer":{"headers":["A: b"]}})",
       200, "saveVideo filename=b.mp4 album=Sea url=http://a/b takesServersName"},
      {"POST", "downloads", R"({"url":"http://a/b","skipAudioFix":1})", 400, ""},
      {"POST", "downloads/12", R"({"action":"retryAsItCame"})", 200, "changeDownload action=retryAsItCame id=12"},
      {"POST", "history", R"({"clear":true})", 200, "clearHistory"},
      {"POST", "history", R"({"clear":12})", 200, "clearHistory id=12"},
      {"POST", "history", R"({"clear":false})", 400, ""},
      {"POST", "library/A", R"({"action":"erase"})", 400, ""},
      {"POST", "library/A", R"({"action":"rename","filename":7})", 400, ""},
      {"POST", "library/", R"({"action":"remove"})", 404, ""},
      {"POST", "downloads/1x", R"({"action":"cancel"})", 404, ""},
      {"GET", "posters/A", "", 404, ""},  // a host without such a method
  };
  for (const Row& row : rows) {
    called.clear();
    const bool isGet = std::string(row.request) == "GET";
    const std::string answer = isGet ? get(row.target) : send(row.request, row.target, row.body);
    EXPECT_EQ(statusOf(answer), row.status) << row.target << row.body << "\n" << answer;
    std::lock_guard guard(mutex);
    EXPECT_EQ(called, row.called) << row.target << row.body;
    if (row.status == 200) {
      EXPECT_EQ(bodyOf(answer), R"({"done":true})");
    }
  }
  EXPECT_EQ(statusOf(send("POST", "downloads", R"({"url":")" + std::string(60'000, 'u') + "\"}")), 200);
  EXPECT_THAT(get("bridge/native.js"), HasSubstr(R"("methods":["getHistory","getTransfers",)"));
}

TEST_F(HostRequestsTest, AnAnswerMayComeLateAndMayBeARefusal) {
  std::mutex mutex;
  std::vector<CAPPluginCallPointer> asked;
  auto isAsked = [&](size_t times) {
    return eventually([&] {
      std::lock_guard guard(mutex);
      return asked.size() == times;
    });
  };
  host_.on("getHistory", [&](const CAPPluginCallPointer& call) {
    std::lock_guard guard(mutex);
    asked.push_back(call);
  });
  host_.on("getTransfers", [](const CAPPluginCallPointer&) { throw std::runtime_error("boom"); });
  host_.on("changeAsset", [](const CAPPluginCallPointer& call) { call->reject("No \"such\" asset"); });
  host_.on("getPoster", [&](const CAPPluginCallPointer& call) {
    if (call->getString("assetId") == "none") return call->resolve();
    call->resolve({{"path", (place_ / *call->getString("assetId")).string()}});
  });
  start();
  std::future<std::string> late = std::async(std::launch::async, [&] { return get("history"); });
  ASSERT_TRUE(isAsked(1));
  EXPECT_THAT(send("POST", "library/A", R"({"action":"remove"})"), HasSubstr(R"({"message":"No \"such\" asset"})"));
  EXPECT_EQ(statusOf(get("downloads")), 409) << "a fault of the host is an answer too";
  asked.front()->resolve({{"entries", JSValue::Array()}});
  EXPECT_EQ(bodyOf(late.get()), R"({"entries":[]})");

  std::ofstream(place_ / "poster.html") << "<script>";
  EXPECT_THAT(get("posters/poster.html"), HasSubstr("Content-Type: image/jpeg")) << "whatever it is called";
  EXPECT_EQ(statusOf(get("posters/none")), 404);
  EXPECT_EQ(statusOf(get("posters/gone.jpg")), 404);

  // Nobody answers any more, and the server ends all the same.
  std::future<std::string> never = std::async(std::launch::async, [&] { return get("history"); });
  ASSERT_TRUE(isAsked(2));
  server_.reset();
  never.wait();
}

}  // namespace
}  // namespace tarn::test

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
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

TEST(HostRequestsTest, AHostMayAnswerLateOrThrowAndTheServerEndsThoughItNeverAnswers) {
  TempDirectory place;
  PosixFileManager files(place.path());
  ManualDispatch dispatch;
  InMemoryPhotoLibrary photos(files, dispatch);
  ScriptedPlugin bridge("TarnBridge"), host("TarnHost");
  std::mutex mutex;
  std::vector<CAPPluginCallPointer> asked;
  const auto isAsked = [&](size_t times) {
    return eventually([&] {
      std::lock_guard guard(mutex);
      return asked.size() == times;
    });
  };
  host.on("getHistory", [&](const CAPPluginCallPointer& call) {
    std::lock_guard guard(mutex);
    asked.push_back(call);
  });
  host.on("getTransfers", [](const CAPPluginCallPointer&) { throw std::runtime_error("boom"); });

  std::filesystem::create_directories(place / "web");
  std::ofstream(place / "web/index.html") << "<!doctype html>";
  const std::string token(64, 'a');
  const BridgeServer::Settings settings{
      .webFolder = place / "web", .token = token, .localFolder = place / "Local", .logFile = {}};
  auto server = std::make_unique<BridgeServer>(files, photos, bridge, host, settings, [](bool) {});
  const std::string port = between(server->entryAddress(), "127.0.0.1:", "/"), name = "127.0.0.1:" + port;
  const auto ask = [&](const std::string& target, const std::string& fields) {
    const std::string head = "GET " + target + " HTTP/1.1\r\nHost: " + name + "\r\n" + fields + "\r\n";
    return askServer(static_cast<uint16_t>(std::stoi(port)), head);
  };
  const std::string entry = ask("/?token=" + token, "");
  const std::string base = between(entry, "; Path=", "\r\n");
  const std::string cookie = "Cookie: " + between(entry, "Set-Cookie: ", ";") + "\r\n";
  const auto get = [&](const std::string& target) { return ask(base + target, cookie); };

  std::future<std::string> late = std::async(std::launch::async, [&] { return get("history"); });
  ASSERT_TRUE(isAsked(1));
  EXPECT_EQ(statusOf(get("downloads")), 409) << "a fault of the host is an answer too";
  asked.front()->resolve({{"entries", JSValue::Array()}});
  EXPECT_EQ(bodyOf(late.get()), R"({"entries":[]})");

  std::future<std::string> never = std::async(std::launch::async, [&] { return get("history"); });
  ASSERT_TRUE(isAsked(2));
  server.reset();
  never.wait();
}

}  // namespace
}  // namespace tarn::test

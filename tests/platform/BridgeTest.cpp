#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/Capacitor.h"

namespace tarn {
namespace {

std::string nested(size_t depth) {
  std::string text;
  for (size_t i = 0; i < depth; ++i) text += "{\"a\":";
  return text + "1" + std::string(depth, '}');
}

TEST(JSObject, readsAndWritesOnlyValidJSON) {
  EXPECT_EQ(JSObject::parse(R"({"a":1,"b":[true,-9223372036854775808,"\u00e9"],"a":3})")->json(),
            "{\"a\":3,\"b\":[true,-9223372036854775808,\"\xC3\xA9\"]}");
  EXPECT_EQ(JSObject({{"k\xFF", "v\xC3"}}).json(), "{\"k\xEF\xBF\xBD\":\"v\xEF\xBF\xBD\"}");
  for (const char* bad : {"", "null", "[{}]", "{", "{}x", "{\"a\":\"\xFF\"}", "{\"a\":\"\\ud800\"}", "{\"a\":1e999}"}) {
    EXPECT_FALSE(JSObject::parse(bad)) << bad;
  }
}

TEST(JSObject, survivesHostileText) {
  EXPECT_TRUE(JSObject::parse(nested(32)));
  EXPECT_FALSE(JSObject::parse(nested(33)));
  EXPECT_FALSE(JSObject::parse(nested(1'000'000)));
  EXPECT_FALSE(JSObject::parse("{\"a\":" + std::string(1'000'000, '[')));
  std::string many = "{\"k\":0";
  for (int i = 0; i < 200'000; ++i) many += ",\"k" + std::to_string(i) + "\":0";
  const auto object = JSObject::parse(many + "}");  // would take minutes if each key were looked for in a list
  ASSERT_TRUE(object);
  EXPECT_EQ(object->json().size(), many.size() + 1);
}

TEST(CAPPluginCall, typedGettersTreatAWrongTypeAsAbsent) {
  const char* const options = R"({"s":"x","t":true,"i":7,"f":3.0,"h":3.5,"e":1e30,"n":null,)"
                              R"("least":-9223372036854775808.0,"beyond":9223372036854775808.0})";
  const CAPPluginCall call("m", *JSObject::parse(options), {});
  std::string found;
  for (const char* key : {"s", "t", "i", "f", "h", "e", "n", "least", "beyond", "absent"}) {
    if (const auto text = call.getString(key)) found += fmt::format("{}: text {}\n", key, *text);
    if (const auto flag = call.getBool(key)) found += fmt::format("{}: flag {}\n", key, *flag);
    if (const auto whole = call.getInt(key)) found += fmt::format("{}: whole {}\n", key, *whole);
  }
  EXPECT_EQ(found, "s: text x\nt: flag true\ni: whole 7\nf: whole 3\nleast: whole -9223372036854775808\n");
}

TEST(CAPPluginCall, isAnsweredOnce) {
  std::atomic<int> answers = 0;
  CAPPluginCall call("m", {}, [&](const auto&) { ++answers; });
  std::thread second([&] { call.resolve(); });
  call.reject("first or second");
  second.join();
  EXPECT_EQ(answers, 1);
}

/// A plug-in whose events are the test's.
class TalkingPlugin : public CAPPlugin {
 public:
  using CAPPlugin::notifyListeners;
  const std::string& identifier() const override { return name_; }
  const std::string& jsName() const override { return name_; }
  const std::vector<CAPPluginMethod>& pluginMethods() const override { return methods_; }

 protected:
  Handler handler(const std::string&) override { return {}; }

 private:
  const std::string name_ = "Talking";
  const std::vector<CAPPluginMethod> methods_ = {};
};

TEST(CAPPlugin, deliversEventsToThePresentListenerOnly) {
  TalkingPlugin plugin;
  plugin.notifyListeners("lost", {});
  // A listener may go while another thread sends: once it has gone, it is not called any more.
  for (int round = 0; round < 50; ++round) {
    auto alive = std::make_unique<std::atomic<int>>(0);
    plugin.setEventListener([&](const std::string&, const JSObject&) { ++*alive; });
    std::thread sender([&] {
      for (int i = 0; i < 200; ++i) plugin.notifyListeners("event", {});
    });
    plugin.setEventListener({});
    alive.reset();
    sender.join();
  }
  int calls = 0;
  plugin.setEventListener([&](const std::string&, const JSObject&) {
    ++calls;
    plugin.setEventListener({});  // from within: must not wait for itself
  });
  plugin.notifyListeners("event", {});
  plugin.notifyListeners("event", {});
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace tarn

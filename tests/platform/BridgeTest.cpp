#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <thread>

#include "platform/Capacitor.h"
#include "support/BridgeClient.h"

namespace tarn {
namespace {

using test::BridgeClient;

std::string nested(size_t depth) {
  std::string text;
  for (size_t i = 0; i < depth; ++i) text += "{\"a\":";
  return text + "1" + std::string(depth, '}');
}

TEST(JSObject, goesThroughJSONAndBack) {
  const std::string text =
      R"({"z":1,"a":[true,null,-9223372036854775808,1.5,"\u00e9\n",{"b":{}},[]],"big":18446744073709551615})";
  const auto object = JSObject::parse(text);
  ASSERT_TRUE(object);
  EXPECT_EQ(object->json(),
            "{\"z\":1,\"a\":[true,null,-9223372036854775808,1.5,\"\xC3\xA9\\n\",{\"b\":{}},[]],\"big\":"
            "1.8446744073709552e+19}");
  EXPECT_EQ(JSObject::parse(R"({"a":1,"b":2,"a":3})")->json(), R"({"a":3,"b":2})");
  EXPECT_EQ(JSObject({{"k\xFF", "v\xC3"}}).json(), "{\"k\xEF\xBF\xBD\":\"v\xEF\xBF\xBD\"}");
  EXPECT_EQ(JSObject().json(), "{}");

  for (const char* bad : {"", "null", "[]", "[{}]", "1", "{", "{} {}", "{}x", "{\"a\":\"\xFF\"}", "{\"a\":\"\\ud800\"}",
                          "{\"a\":1e999}", "{a:1}", "{\"a\":[1,]}", "{\"a\":NaN}"}) {
    EXPECT_FALSE(JSObject::parse(bad)) << bad;
  }
}

TEST(JSObject, standsHostileText) {
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

TEST(CAPPluginCall, typedGettersTakeAWrongTypeForAbsent) {
  const CAPPluginCall call("m", *JSObject::parse(R"({"s":"x","t":true,"i":7,"f":3.0,"h":3.5,"e":1e30,"n":null})"), {});
  std::string found;
  for (const char* key : {"s", "t", "i", "f", "h", "e", "n", "absent"}) {
    if (const auto text = call.getString(key)) found += fmt::format("{}: text {}\n", key, *text);
    if (const auto flag = call.getBool(key)) found += fmt::format("{}: flag {}\n", key, *flag);
    if (const auto whole = call.getInt(key)) found += fmt::format("{}: whole {}\n", key, *whole);
  }
  EXPECT_EQ(found, "s: text x\nt: flag true\ni: whole 7\nf: whole 3\n");
  const CAPPluginCall odd("m", {{"nan", std::numeric_limits<double>::quiet_NaN()}, {"2^63", 0x1p63}, {"min", -0x1p63}},
                          {});
  EXPECT_FALSE(odd.getInt("nan"));
  EXPECT_FALSE(odd.getInt("2^63"));
  EXPECT_EQ(odd.getInt("min"), std::numeric_limits<int64_t>::min());
}

/// A plug-in with a method of each kind that the bridge can meet.
class EchoPlugin : public CAPPlugin {
 public:
  using CAPPlugin::notifyListeners;
  const std::string& identifier() const override { return name_; }
  const std::string& jsName() const override { return name_; }
  const std::vector<CAPPluginMethod>& pluginMethods() const override { return methods_; }

 protected:
  Handler handler(const std::string& method) override {
    if (method == "listedOnly") return {};
    return [](const CAPPluginCallPointer& call) {
      std::thread second([call] { call->resolve({{"from", call->method()}}); });
      call->reject("first or second");
      second.join();
    };
  }

 private:
  std::string name_ = "Echo";
  std::vector<CAPPluginMethod> methods_{{"echo", "promise"}, {"listedOnly", "promise"}};
};

TEST(CAPPlugin, answersEachCallOnce) {
  EchoPlugin plugin;
  std::atomic<int> answers = 0;
  plugin.call(std::make_shared<CAPPluginCall>("echo", JSObject(), [&](const auto&) { ++answers; }));
  EXPECT_EQ(answers, 1);
  {
    const CAPPluginCall dropped("m", {}, [&](const auto&) { ++answers; });
  }
  EXPECT_EQ(answers, 1);

  BridgeClient page(plugin);
  for (const char* method : {"listedOnly", "handledOnly"}) {
    const auto answer = page.call(method);
    EXPECT_FALSE(answer.resolved);
    EXPECT_EQ(answer.message, "not implemented");
  }
}

TEST(CAPPlugin, deliversEventsToThePresentListenerOnly) {
  EchoPlugin plugin;
  plugin.notifyListeners("lost", {});
  {
    BridgeClient page(plugin);
    std::thread sender([&] {
      for (int i = 0; i < 100; ++i) plugin.notifyListeners("count", {{"i", i}});
    });
    const auto isLast = [](const JSObject& data) { return *data.find("i")->get<int64_t>() == 99; };
    EXPECT_TRUE(page.waitForEvent("count", isLast));
    EXPECT_FALSE(page.waitForEvent("lost", {}, std::chrono::milliseconds(1)));
    EXPECT_EQ(page.events().size(), 100u);
    sender.join();
  }
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

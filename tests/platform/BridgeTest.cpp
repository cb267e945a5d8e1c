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

}  // namespace
}  // namespace tarn

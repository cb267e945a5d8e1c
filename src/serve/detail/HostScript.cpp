#include "serve/detail/HostScript.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "serve/detail/NativeScript.h"

namespace tarn {
namespace {

constexpr std::string_view scriptElement = R"(<script src="bridge/native.js"></script>)";

/// The methods that the bridge adds to every plug-in. The first two are no promises: the page's core calls them in a
/// way of its own.
constexpr std::array<std::pair<std::string_view, std::string_view>, 5> bridgeMethods{{
    {"addListener", ""},
    {"removeListener", ""},
    {"removeAllListeners", "promise"},
    {"checkPermissions", "promise"},
    {"requestPermissions", "promise"},
}};

JSObject methodEntry(std::string_view name, std::string_view returnType) {
  JSObject entry{{"name", std::string(name)}};
  if (!returnType.empty()) entry.set("rtype", std::string(returnType));
  return entry;
}

bool isEqualIgnoringCase(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

/// Where the content of the head begins: after its tag, or at the start where it has none.
size_t startOfHead(std::string_view html) {
  constexpr std::string_view tag = "<head";
  auto from = html.begin();
  for (;;) {
    const auto found = std::search(from, html.end(), tag.begin(), tag.end(), isEqualIgnoringCase);
    if (found == html.end()) return 0;
    from = found + tag.size();
    if (from != html.end() && (*from == '>' || std::isspace(static_cast<unsigned char>(*from)))) break;
  }
  const auto end = std::find(from, html.end(), '>');
  return end == html.end() ? 0 : static_cast<size_t>(end - html.begin()) + 1;
}

}  // namespace

std::string hostScript(const CAPBridgedPlugin& plugin, const std::string& pageKey, const HostFacts& host) {
  JSValue::Array methods;
  for (const CAPPluginMethod& method : plugin.pluginMethods()) {
    methods.emplace_back(methodEntry(method.name, method.returnType));
  }
  for (const auto& [name, returnType] : bridgeMethods) methods.emplace_back(methodEntry(name, returnType));
  const JSObject table{{"name", plugin.jsName()}, {"methods", std::move(methods)}};
  const JSObject facts{
      {"name", host.name}, {"methods", JSValue::Array(host.methods.begin(), host.methods.end())}, {"log", host.log}};
  return fmt::format("const tarnPlugins = [{}];\nconst tarnPageKey = \"{}\";\nconst tarnHostFacts = {};\n{}",
                     table.json(), pageKey, facts.json(), nativeScript());
}

std::string withHostScript(std::string_view html) {
  std::string page(html);
  page.insert(startOfHead(html), scriptElement);
  return page;
}

std::string entryPage(const std::string& base) {
  return fmt::format(
      R"(<!doctype html><html lang="en"><head><meta charset="utf-8"><meta http-equiv="refresh" content="0;url={0}">)"
      R"(<title>Tarn</title></head><body><a href="{0}">Tarn</a></body></html>)",
      base);
}

}  // namespace tarn

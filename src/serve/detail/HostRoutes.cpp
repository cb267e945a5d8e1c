#include "serve/detail/HostRoutes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <span>
#include <utility>

#include "platform/URL.h"

namespace tarn {
namespace {

using Names = std::span<const std::string_view>;

enum class Id { none, number, text };

struct Route {
  std::string_view httpMethod;
  std::string_view path;  ///< one that ends in "/" is followed by an identifier
  std::string_view method;
  Id id = Id::none;
  std::string_view idKey = {};
  std::string_view numberKey = {};  ///< what may stand in the query
  Names actions = {};               ///< one of them the body must hold as `action`, if there are any
  Names texts = {};                 ///< what else it may hold
  Names flags = {};
  bool needsClear = false;  ///< it must hold `clear`
  size_t largestBody = 4 << 10;
};

constexpr std::array<std::string_view, 4> assetActions{"remove", "restore", "rename", "move"};
constexpr std::array<std::string_view, 2> assetTexts{"filename", "album"};
constexpr std::array<std::string_view, 1> showActions{"open"};
constexpr std::array<std::string_view, 5> downloadActions{"pause", "resume", "cancel", "retry", "retryAsItCame"};
constexpr std::array<std::string_view, 3> saveTexts{"url", "album", "filename"};
constexpr std::array<std::string_view, 3> saveFlags{"takesServersName", "skipVideoFix", "skipAudioFix"};

constexpr std::array<Route, 8> routes{{
    {.httpMethod = "GET", .path = "/history", .method = "getHistory", .numberKey = "limit"},
    {.httpMethod = "GET", .path = "/downloads", .method = "getTransfers"},
    {.httpMethod = "GET", .path = "/posters/", .method = "getPoster", .id = Id::text, .idKey = "assetId"},
    {.httpMethod = "POST",
     .path = "/library/",
     .method = "changeAsset",
     .id = Id::text,
     .idKey = "assetId",
     .actions = assetActions,
     .texts = assetTexts},
    {.httpMethod = "POST",
     .path = "/library/",
     .method = "showAsset",
     .id = Id::text,
     .idKey = "assetId",
     .actions = showActions},
    {.httpMethod = "POST",
     .path = "/downloads",
     .method = "saveVideo",
     .texts = saveTexts,
     .flags = saveFlags,
     .largestBody = 64 << 10},  // addresses can be long
    {.httpMethod = "POST",
     .path = "/downloads/",
     .method = "changeDownload",
     .id = Id::number,
     .idKey = "id",
     .actions = downloadActions},
    {.httpMethod = "POST", .path = "/history", .method = "clearHistory", .needsClear = true},
}};

bool isAt(const Route& route, std::string_view path) {
  return route.path.ends_with('/') ? path.starts_with(route.path) : path == route.path;
}

std::optional<int64_t> numberIn(std::string_view text) {
  int64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = result.ec == std::errc() && result.ptr == text.data() + text.size();
  return isNumber ? std::optional(number) : std::nullopt;
}

std::optional<JSValue> idIn(const Route& route, std::string_view path) {
  const auto text = percentDecode(path.substr(route.path.size()));
  if (!text || text->empty()) return std::nullopt;
  if (route.id == Id::text) return JSValue(*text);
  const auto number = numberIn(*text);
  return number ? std::optional(JSValue(*number)) : std::nullopt;
}

bool contains(Names names, std::string_view name) {
  return std::ranges::find(names, name) != names.end();
}

/// What the body is to a route: nothing if it is as the route wants it, and then its fields are among the options.
std::optional<Refusal> takeBody(const Route& route, const JSObject& body, JSObject& options) {
  const auto refusal = [](std::string_view key, const char* words) {
    return Refusal{400, "\"" + std::string(key) + "\" " + words};
  };
  if (route.needsClear) {  // true for all, or the id of one
    if (const auto* id = valueAt<int64_t>(body, "clear")) {
      options.set("id", *id);
    } else if (!valueAt(body, "clear", false)) {
      return refusal("clear", "must be true, or the number of a download.");
    }
  }
  if (!route.actions.empty()) options.set("action", valueAt(body, "action", std::string()));
  for (const auto& [key, value] : body.members()) {
    if (contains(route.texts, key)) {
      if (!value.get<std::string>()) return refusal(key, "must be a text.");
    } else if (contains(route.flags, key)) {
      if (!value.get<bool>()) return refusal(key, "must be true or false.");
    } else {
      continue;
    }
    options.set(key, value);
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::string_view> HostRoutes::allowedMethods(std::string_view path) {
  if (path == local) return {"PUT"};
  std::vector<std::string_view> methods;
  for (const Route& route : routes) {
    if (isAt(route, path) && !contains(methods, route.httpMethod)) methods.push_back(route.httpMethod);
  }
  if (methods.empty()) methods.push_back("GET");
  return methods;
}

std::optional<Refusal> HostRoutes::refuseLocal(const RequestTarget& target) {
  if (!target.parameter("album").empty()) return std::nullopt;
  return Refusal{400, "\"album\" must name the album for the video."};
}

bool HostRoutes::isAsked(std::string_view path) {
  return std::ranges::any_of(routes,
                             [&](const Route& route) { return route.httpMethod == "GET" && isAt(route, path); });
}

size_t HostRoutes::largestBody(std::string_view path) {
  size_t largest = 0;
  for (const Route& route : routes) {
    if (route.httpMethod == "POST" && isAt(route, path)) largest = std::max(largest, route.largestBody);
  }
  return largest;
}

std::variant<HostCall, Refusal> HostRoutes::callFor(std::string_view httpMethod, const RequestTarget& target,
                                                    std::string_view body) {
  const auto given = httpMethod == "GET" ? std::optional(JSObject()) : JSObject::parse(body);
  if (!given) return Refusal{400, "The body is not a JSON object."};
  const auto action = valueAt(*given, "action", std::string());
  const auto route = std::ranges::find_if(routes, [&](const Route& candidate) {
    return candidate.httpMethod == httpMethod && isAt(candidate, target.path) &&
           (candidate.actions.empty() || contains(candidate.actions, action));
  });
  if (route == routes.end()) return Refusal{400, "\"action\" names nothing that can be done here."};
  HostCall call{.method = std::string(route->method)};
  if (route->id != Id::none) {
    auto id = idIn(*route, target.path);
    if (!id) return Refusal{404, "The address names no such thing."};
    call.options.set(std::string(route->idKey), std::move(*id));
  }
  const std::string numberKey(route->numberKey);
  if (!numberKey.empty() && target.query.contains(numberKey)) {
    const auto number = numberIn(target.parameter(numberKey));
    if (!number) return Refusal{400, "\"" + numberKey + "\" must be a number."};
    call.options.set(numberKey, *number);
  }
  if (auto refusal = takeBody(*route, *given, call.options)) return *refusal;
  return call;
}

}  // namespace tarn

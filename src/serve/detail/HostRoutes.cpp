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

enum class Id { none, number, text };

struct Route {
  std::string_view httpMethod;
  std::string_view path;  ///< one that ends in "/" is followed by an identifier
  std::string_view method;
  Id id = Id::none;
  std::string_view idKey = {};
  std::string_view numberKey = {};                 ///< what may stand in the query
  std::span<const std::string_view> actions = {};  ///< one of them the body must hold as `action`
  std::span<const std::string_view> texts = {};    ///< what else it may hold
  std::string_view changed = {};
};

constexpr std::array<std::string_view, 4> assetActions{"remove", "restore", "rename", "move"};
constexpr std::array<std::string_view, 2> assetTexts{"filename", "album"};
constexpr std::array<std::string_view, 5> downloadActions{"pause", "resume", "cancel", "retry", "retryAsItCame"};

constexpr std::array<Route, 6> routes{{
    {.httpMethod = "GET", .path = "/history", .method = "getHistory", .numberKey = "limit"},
    {.httpMethod = "GET", .path = "/downloads", .method = "getTransfers"},
    {.httpMethod = "GET", .path = "/posters/", .method = "getPoster", .id = Id::text, .idKey = "assetId"},
    {.httpMethod = "POST",
     .path = "/library/",
     .method = "changeAsset",
     .id = Id::text,
     .idKey = "assetId",
     .actions = assetActions,
     .texts = assetTexts,
     .changed = "library"},
    {.httpMethod = "POST",
     .path = "/downloads/",
     .method = "changeDownload",
     .id = Id::number,
     .idKey = "id",
     .actions = downloadActions,
     .changed = "downloads"},
    {.httpMethod = "POST", .path = "/history", .method = "clearHistory", .changed = "history"},
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

/// The options of clearHistory: `clear` is true for all, or the id of one entry.
std::variant<HostCall, Refusal> clearCall(const Route& route, const JSObject& body) {
  HostCall call{.method = std::string(route.method)};
  if (const auto* id = valueAt<int64_t>(body, "clear")) {
    call.options.set("id", *id);
  } else if (!valueAt(body, "clear", false)) {
    return Refusal{400, "\"clear\" must be true, or the number of a download."};
  }
  return call;
}

}  // namespace

std::vector<std::string_view> HostRoutes::allowedMethods(std::string_view path) {
  if (path == local) return {"PUT"};
  std::vector<std::string_view> methods;
  for (const Route& route : routes) {
    if (isAt(route, path)) methods.push_back(route.httpMethod);
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

std::variant<HostCall, Refusal> HostRoutes::callFor(std::string_view httpMethod, const RequestTarget& target,
                                                    std::string_view body) {
  const std::string& path = target.path;
  const auto route = std::ranges::find_if(
      routes, [&](const Route& candidate) { return candidate.httpMethod == httpMethod && isAt(candidate, path); });
  if (route == routes.end()) return Refusal{404, "There is nothing here."};
  HostCall call{.method = std::string(route->method)};
  if (route->id != Id::none) {
    auto id = idIn(*route, path);
    if (!id) return Refusal{404, "The address names no such thing."};
    call.options.set(std::string(route->idKey), std::move(*id));
  }
  if (!route->numberKey.empty() && target.query.contains(std::string(route->numberKey))) {
    const auto number = numberIn(target.parameter(std::string(route->numberKey)));
    if (!number) return Refusal{400, "\"" + std::string(route->numberKey) + "\" must be a number."};
    call.options.set(std::string(route->numberKey), *number);
  }
  if (httpMethod == "GET") return call;
  const auto given = JSObject::parse(body);
  if (!given) return Refusal{400, "The body is not a JSON object."};
  if (route->actions.empty()) return clearCall(*route, *given);
  const auto action = valueAt(*given, "action", std::string());
  if (std::ranges::find(route->actions, action) == route->actions.end()) {
    return Refusal{400, "\"action\" names nothing that can be done here."};
  }
  call.options.set("action", action);
  for (const std::string_view key : route->texts) {
    const JSValue* value = given->find(key);
    if (!value) continue;
    const auto* text = value->get<std::string>();
    if (!text) return Refusal{400, "\"" + std::string(key) + "\" must be a text."};
    call.options.set(std::string(key), *text);
  }
  return call;
}

std::string_view HostRoutes::changedBy(std::string_view method) {
  const auto route = std::ranges::find(routes, method, &Route::method);
  return route == routes.end() ? std::string_view() : route->changed;
}

}  // namespace tarn

#include "serve/detail/PageMessage.h"

#include <utility>

#include "platform/JSObject.h"

namespace tarn {
namespace {

constexpr size_t longestId = 128;

/// The text at a key; nothing when it is absent, of another type or longer than `limit` bytes.
std::optional<std::string> textAt(const JSObject& object, std::string_view key, size_t limit) {
  const auto* text = valueAt<std::string>(object, key);
  return text && text->size() <= limit ? std::optional(*text) : std::nullopt;
}

JSObject rejection(std::string words) {
  return {{"message", std::move(words)}};
}

}  // namespace

PageMessage parsePageMessage(std::string_view text) {
  const auto message = JSObject::parse(text);
  if (!message) return BadMessage{std::nullopt, "The message is not a JSON object"};
  auto id = textAt(*message, "id", longestId);
  if (text.size() > largestPageMessage) return BadMessage{id, "The message is too large"};
  if (const JSValue* visible = message->find("visible"); visible && !message->find("id")) {
    if (const bool* isVisible = visible->get<bool>()) return PageVisibility{*isVisible};
    return BadMessage{std::nullopt, "\"visible\" must be true or false"};
  }
  if (!id || id->empty()) return BadMessage{std::nullopt, "\"id\" must be a text of 1 to 128 bytes"};
  auto plugin = textAt(*message, "plugin", text.size());
  auto method = textAt(*message, "method", text.size());
  if (!plugin || !method) return BadMessage{id, "\"plugin\" and \"method\" must be texts"};
  const JSValue* options = message->find("options");
  if (!options) return PageCommand{std::move(*id), std::move(*plugin), std::move(*method), {}};
  const auto* object = options->get<JSObject>();
  if (!object) return BadMessage{id, "\"options\" must be an object"};
  return PageCommand{std::move(*id), std::move(*plugin), std::move(*method), *object};
}

std::string helloText(const std::string& epoch, uint64_t lastNumber, Replay replay) {
  const char* const names[] = {"none", "complete", "lost"};
  return JSObject{{"hello", JSObject{{"epoch", epoch},
                                     {"seq", static_cast<int64_t>(lastNumber)},
                                     {"replay", names[static_cast<size_t>(replay)]}}}}
      .json();
}

std::string answerText(const std::string& id, const CAPPluginCall::Answer& answer) {
  if (answer.resolved) return JSObject{{"id", id}, {"resolve", answer.data}}.json();
  JSObject rejected = rejection(answer.message);
  if (!answer.data.empty()) rejected.set("data", answer.data);
  return JSObject{{"id", id}, {"reject", std::move(rejected)}}.json();
}

std::string refusalText(const BadMessage& message) {
  return JSObject{{"id", message.id ? JSValue(*message.id) : JSValue()}, {"reject", rejection(message.words)}}.json();
}

std::string eventText(uint64_t number, const std::string& plugin, const std::string& event, const JSObject& data) {
  return JSObject{{"seq", static_cast<int64_t>(number)}, {"plugin", plugin}, {"event", event}, {"data", data}}.json();
}

}  // namespace tarn

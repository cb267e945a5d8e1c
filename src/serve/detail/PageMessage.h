#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/Capacitor.h"

namespace tarn {

/// The messages between a page and the host: JSON objects, one a WebSocket message.

/// A page calls a method of a plug-in. The id is the page's own, and answers bear it.
struct PageCommand {
  std::string id;
  std::string plugin;
  std::string method;
  JSObject options;
};

/// A page tells whether it can be seen.
struct PageVisibility {
  bool isVisible = false;
};

/// A message that cannot be taken, with the id under which to say so where it has one.
struct BadMessage {
  std::optional<std::string> id;
  std::string words;
};

using PageMessage = std::variant<PageCommand, PageVisibility, BadMessage>;

/// The largest message that is taken, in bytes.
inline constexpr size_t largestPageMessage = 256 << 10;

/// Reads what a page has sent, whatever it is. Never throws, but for want of memory.
PageMessage parsePageMessage(std::string_view text);

enum class Replay {
  none,      ///< a page's first connection
  complete,  ///< every event that the page has missed follows
  lost,      ///< some cannot be told any more: the page has to ask for the state of things
};

/// The first message on each connection: whose numbers the events bear, and how far they have come.
std::string helloText(const std::string& epoch, uint64_t lastNumber, Replay replay);
std::string answerText(const std::string& id, const CAPPluginCall::Answer& answer);
std::string refusalText(const BadMessage& message);
std::string eventText(uint64_t number, const std::string& plugin, const std::string& event, const JSObject& data);

}  // namespace tarn

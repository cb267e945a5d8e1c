#pragma once

#include <tarn/engine.h>

#include <string>
#include <string_view>

#include "platform/JSObject.h"

namespace tarn {

using HistoryEntry = Engine::HistoryEntry;

/// The form in which pages and commands get an entry: docs/json.md. And the entry of such an object.
JSObject jsonOf(const HistoryEntry& entry);
HistoryEntry historyEntryOf(const JSObject& object);

/// The stored text of a state; and the state of such a text, `failed` for any other.
std::string_view textOf(HistoryEntry::State state);
HistoryEntry::State historyState(std::string_view text);

/// The scheme, the host with its port and the path of a URL; empty for what is none.
std::string shownURL(const std::string& url);

}  // namespace tarn

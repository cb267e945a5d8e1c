#pragma once

#include <tarn/engine.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Clock.h"
#include "platform/JSObject.h"

namespace tarn {

/// What the history of a home tells of one download.
struct HistoryEntry {
  using State = Engine::HistoryEntry::State;

  int64_t id = 0;
  State state = State::pending;
  std::string filename = {};
  std::string album = {};
  std::string url = {};  ///< scheme, host and path: what else it had may be secret
  Date started = {};
  std::optional<Date> ended = {};
  std::string reason = {};                  ///< why it failed, or what a saved one lacks; without a stop
  std::string advice = {};                  ///< what somebody can do about a failure: a sentence, or nothing
  bool mayTryAgain = false;                 ///< the same request is still there, and may work
  bool maySaveAsItCame = false;             ///< likewise without the repair
  bool isPartly = false;                    ///< saved, and a part of the video is missing
  std::string summary = {};                 ///< what was repaired, as JSON; empty if nobody knows
  std::optional<uint64_t> size = {};        ///< of a saved video, in bytes
  std::optional<std::string> assetId = {};  ///< of a saved video

  /// The form in which pages and commands get it: docs/json.md.
  JSObject json() const;
};

/// The stored text of a state; and the state of such a text, `failed` for any other.
std::string_view textOf(HistoryEntry::State state);
HistoryEntry::State historyState(std::string_view text);

/// The scheme, the host with its port and the path of a URL; empty for what is none.
std::string shownURL(const std::string& url);

}  // namespace tarn

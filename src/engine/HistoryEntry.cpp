#include "engine/HistoryEntry.h"

#include <algorithm>
#include <array>

#include "platform/DateText.h"
#include "platform/URL.h"

namespace tarn {
namespace {

constexpr std::array<std::string_view, 4> stateTexts{"pending", "saved", "failed", "cancelled"};

}  // namespace

std::string_view textOf(HistoryEntry::State state) {
  return stateTexts[static_cast<size_t>(state)];
}

HistoryEntry::State historyState(std::string_view text) {
  for (size_t i = 0; i < stateTexts.size(); ++i) {
    if (stateTexts[i] == text) return static_cast<HistoryEntry::State>(i);
  }
  return HistoryEntry::State::failed;
}

JSObject jsonOf(const HistoryEntry& entry) {
  JSObject object{{"id", entry.id},
                  {"state", std::string(textOf(entry.state))},
                  {"filename", entry.filename},
                  {"album", entry.album},
                  {"url", entry.url},
                  {"started", dateText(entry.started)}};
  if (entry.ended) object.set("ended", dateText(*entry.ended));
  if (!entry.reason.empty()) object.set("reason", entry.reason);
  if (!entry.advice.empty()) object.set("advice", entry.advice);
  object.set("refused", entry.isRefused);
  object.set("mayTryAgain", entry.mayTryAgain);
  object.set("maySaveAsItCame", entry.maySaveAsItCame);
  object.set("partly", entry.isPartly);
  if (entry.size) object.set("size", static_cast<int64_t>(*entry.size));
  if (entry.assetId) object.set("assetId", *entry.assetId);
  if (auto summary = JSObject::parse(entry.summary)) object.set("summary", std::move(*summary));
  return object;
}

HistoryEntry historyEntryOf(const JSObject& object) {
  HistoryEntry entry{.id = valueAt<int64_t>(object, "id", 0),
                     .state = historyState(valueAt<std::string>(object, "state", "")),
                     .filename = valueAt<std::string>(object, "filename", ""),
                     .album = valueAt<std::string>(object, "album", ""),
                     .url = valueAt<std::string>(object, "url", ""),
                     .started = dateOfText(valueAt<std::string>(object, "started", "")),
                     .reason = valueAt<std::string>(object, "reason", ""),
                     .advice = valueAt<std::string>(object, "advice", ""),
                     .isRefused = valueAt(object, "refused", false),
                     .mayTryAgain = valueAt(object, "mayTryAgain", false),
                     .maySaveAsItCame = valueAt(object, "maySaveAsItCame", false),
                     .isPartly = valueAt(object, "partly", false),
                     .assetId = optionalAt<std::string>(object, "assetId")};
  if (const auto* const ended = valueAt<std::string>(object, "ended")) entry.ended = dateOfText(*ended);
  if (const auto* const summary = valueAt<JSObject>(object, "summary")) entry.summary = summary->json();
  if (const auto* const size = valueAt<int64_t>(object, "size")) entry.size = static_cast<uint64_t>(*size);
  return entry;
}

std::string shownURL(const std::string& url) {
  if (!URL::parse(url)) return "";
  const size_t start = url.find("://") + 3;
  const size_t path = std::min(url.find_first_of("/?#", start), url.size());
  const std::string authority = url.substr(start, path - start);
  const size_t at = authority.rfind('@');  // npos + 1 is 0
  const size_t end = std::min(url.find_first_of("?#", start), url.size());
  return url.substr(0, start) + authority.substr(at + 1) + url.substr(path, end - path);
}

}  // namespace tarn

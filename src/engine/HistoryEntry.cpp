#include "engine/HistoryEntry.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>

#include "platform/URL.h"

namespace tarn {
namespace {

constexpr std::array<std::string_view, 4> stateTexts{"pending", "saved", "failed", "cancelled"};

std::string dateText(Date date) {
  return fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(date)));
}

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

JSObject HistoryEntry::json() const {
  JSObject object{{"id", id},   {"state", std::string(textOf(state))}, {"filename", filename}, {"album", album},
                  {"url", url}, {"started", dateText(started)}};
  if (ended) object.set("ended", dateText(*ended));
  if (!reason.empty()) object.set("reason", reason);
  if (!advice.empty()) object.set("advice", advice);
  object.set("mayTryAgain", mayTryAgain);
  object.set("maySaveAsItCame", maySaveAsItCame);
  object.set("partly", isPartly);
  if (size) object.set("size", static_cast<int64_t>(*size));
  if (assetId) object.set("assetId", *assetId);
  if (auto told = JSObject::parse(summary)) object.set("summary", std::move(*told));
  return object;
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

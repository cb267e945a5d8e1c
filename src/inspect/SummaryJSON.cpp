#include "inspect/SummaryJSON.h"

#include <cmath>

namespace tarn {
namespace {

using Span = RepairSummary::Span;
using Timeline = RepairSummary::Timeline;

double toMillisecond(double seconds) {
  return std::round(seconds * 1000) / 1000;
}

JSValue::Array spansJSON(const std::vector<Span>& spans) {
  JSValue::Array array;
  for (const Span& span : spans) array.emplace_back(JSValue::Array{toMillisecond(span.start), toMillisecond(span.end)});
  return array;
}

JSObject timelineJSON(const Timeline& timeline) {
  JSObject object{{"video", spansJSON(timeline.video)}, {"audio", spansJSON(timeline.audio)}};
  if (timeline.soundBehindAtStart) object.set("soundBehindAtStart", toMillisecond(*timeline.soundBehindAtStart));
  if (timeline.soundBehindAtEnd) object.set("soundBehindAtEnd", toMillisecond(*timeline.soundBehindAtEnd));
  return object;
}

/// A number, written whole or not.
std::optional<double> numberOf(const JSValue* value) {
  if (!value) return std::nullopt;
  if (const double* number = value->get<double>()) return *number;
  if (const int64_t* number = value->get<int64_t>()) return static_cast<double>(*number);
  return std::nullopt;
}

std::vector<std::string> textsOf(const JSObject& object, std::string_view key) {
  std::vector<std::string> texts;
  const auto* array = valueAt<JSValue::Array>(object, key);
  if (!array) return texts;
  for (const JSValue& value : *array) {
    if (const auto* text = value.get<std::string>()) texts.push_back(*text);
  }
  return texts;
}

std::vector<Span> spansOf(const JSObject& object, std::string_view key) {
  std::vector<Span> spans;
  const auto* array = valueAt<JSValue::Array>(object, key);
  if (!array) return spans;
  for (const JSValue& value : *array) {
    const auto* ends = value.get<JSValue::Array>();
    if (!ends || ends->size() != 2) continue;
    const auto start = numberOf(&ends->front()), end = numberOf(&ends->back());
    if (start && end) spans.push_back({*start, *end});
  }
  return spans;
}

std::optional<Timeline> timelineOf(const JSObject& object, std::string_view key) {
  const auto* timeline = valueAt<JSObject>(object, key);
  if (!timeline) return std::nullopt;
  return Timeline{.video = spansOf(*timeline, "video"),
                  .audio = spansOf(*timeline, "audio"),
                  .soundBehindAtStart = numberOf(timeline->find("soundBehindAtStart")),
                  .soundBehindAtEnd = numberOf(timeline->find("soundBehindAtEnd"))};
}

}  // namespace

JSObject summaryJSON(const RepairSummary& summary) {
  JSObject object{{"wrong", JSValue::Array(summary.wrong.begin(), summary.wrong.end())},
                  {"done", JSValue::Array(summary.done.begin(), summary.done.end())}};
  if (summary.before) object.set("before", timelineJSON(*summary.before));
  if (summary.after) object.set("after", timelineJSON(*summary.after));
  return object;
}

RepairSummary summaryFromJSON(const JSObject& object) {
  return {.wrong = textsOf(object, "wrong"),
          .done = textsOf(object, "done"),
          .before = timelineOf(object, "before"),
          .after = timelineOf(object, "after")};
}

}  // namespace tarn

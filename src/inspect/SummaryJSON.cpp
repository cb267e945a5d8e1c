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

}  // namespace

JSObject summaryJSON(const RepairSummary& summary) {
  JSObject object{{"wrong", JSValue::Array(summary.wrong.begin(), summary.wrong.end())},
                  {"done", JSValue::Array(summary.done.begin(), summary.done.end())}};
  if (summary.before) object.set("before", timelineJSON(*summary.before));
  if (summary.after) object.set("after", timelineJSON(*summary.after));
  return object;
}

}  // namespace tarn

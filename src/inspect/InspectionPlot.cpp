#include "inspect/InspectionPlot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string_view>

#include "audio/SoundWords.h"
#include "inspect/SoundText.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

using Span = RepairSummary::Span;
using Timeline = RepairSummary::Timeline;

constexpr double width = 960;
constexpr double left = 90;  ///< of the bars
constexpr double right = 940;
constexpr double barHeight = 26;
constexpr size_t longestText = 110;  // bytes
constexpr size_t mostFaults = 8;     // that are written below the bars

/// A text out of a file, fit for an XML document.
std::string escapedText(std::string_view text) {
  std::string result;
  for (char c : plainLine(text, longestText)) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

/// Where the edits of a list begin and end on the movie's timeline, in seconds.
std::vector<double> editEnds(const std::vector<EditListEntry>& entries, uint32_t movieTimescale) {
  std::vector<double> ends;
  if (entries.empty() || movieTimescale == 0) return ends;
  double time = 0;
  ends.push_back(time);
  for (const EditListEntry& entry : entries) {
    time += static_cast<double>(entry.duration) / movieTimescale;
    ends.push_back(time);
  }
  return ends;
}

class Drawing {
 public:
  explicit Drawing(const Inspection& inspection) : inspection_(inspection) {
    const RepairSummary& summary = inspection.summary;
    for (const auto& timeline : {summary.before, summary.after}) {
      if (!timeline) continue;
      for (const auto& spans : {timeline->video, timeline->audio}) {
        if (!spans.empty()) end_ = std::max(end_, spans.back().end);
      }
    }
  }

  std::string make() {
    text(left, 28, "title", inspection_.file.filename().string());
    text(left, 48, "", inspection_.verdict.text);
    const RepairSummary& summary = inspection_.summary;
    part(summary.before, "before", false);
    if (inspection_.changesFile) part(summary.after, "after a repair", true);
    if (summary.before || summary.after) axis();
    faults();
    return head() + body_ + "</svg>\n";
  }

 private:
  double at(double seconds) const {
    if (!(end_ > 0)) return left;
    return left + std::clamp(seconds / end_, 0.0, 1.0) * (right - left);
  }

  template <typename... Values>
  void put(fmt::format_string<Values...> format, Values&&... values) {
    fmt::format_to(std::back_inserter(body_), format, std::forward<Values>(values)...);
    body_ += '\n';
  }

  void text(double x, double y, std::string_view style, std::string_view words, std::string_view anchor = "start") {
    put(R"(<text x="{:.1f}" y="{:.1f}" class="{}" text-anchor="{}">{}</text>)", x, y, style, anchor,
        escapedText(words));
  }

  void box(double from, double to, double y, double height, std::string_view style, std::string_view title = "") {
    const double start = at(from), length = std::max(at(to) - start, 1.0);
    put(R"(<rect x="{:.1f}" y="{:.1f}" width="{:.1f}" height="{:.1f}" class="{}"><title>{}</title></rect>)", start, y,
        length, height, style, escapedText(title));
  }

  /// One moment of the file: a bar of pictures above a bar of sound.
  void part(const std::optional<Timeline>& timeline, std::string_view name, bool isAfter) {
    text(left, y_, "head", name);
    y_ += 10;
    if (!timeline) {
      text(left, y_ + 16, "", "what the file shows cannot be told from its index");
      y_ += 50;
      return;
    }
    bar("picture", timeline->video, "video");
    edits("vide", isAfter);
    y_ += barHeight + 8;
    bar("sound", timeline->audio, "audio");
    edits("soun", isAfter);
    if (!isAfter) soundFaults();
    y_ += barHeight + 18;
    text(left, y_, "", soundAgainstPicture(*timeline).value_or(""));
    y_ += 34;
  }

  void bar(std::string_view name, const std::vector<Span>& spans, std::string_view style) {
    text(left - 10, y_ + 18, "", name, "end");
    if (spans.empty()) return text(left, y_ + 18, "", "none");
    double last = 0;
    for (const Span& span : spans) {
      if (span.start - last > 0.0005) {
        box(last, span.start, y_, barHeight, "hole", fmt::format("nothing from {:.3f} to {:.3f} s", last, span.start));
      }
      box(span.start, span.end, y_, barHeight, style, fmt::format("{:.3f} to {:.3f} s", span.start, span.end));
      last = span.end;
    }
    if (end_ - last > 0.0005) box(last, end_, y_, barHeight, "hole", fmt::format("nothing from {:.3f} s on", last));
  }

  /// Marks where the edits of the list meet.
  void edits(std::string_view handler, bool isAfter) {
    if (!inspection_.sync) return;
    const bool isVideo = handler == "vide";
    std::vector<EditListEntry> entries = isVideo ? inspection_.sync->videoEditList : inspection_.sync->audioEditList;
    const auto track = std::ranges::find(inspection_.tracks, handler, &TrackFacts::handler);
    if (isAfter && track != inspection_.tracks.end()) {
      const auto& order = inspection_.syncFix.order.tracks;
      const auto list = std::ranges::find(order, track->id, &SyncFixOrder::Track::trackID);
      if (list != order.end()) entries = list->list.entries;
    }
    for (double end : editEnds(entries, inspection_.sync->movieTimescale)) {
      put(R"(<line x1="{0:.1f}" y1="{1:.1f}" x2="{0:.1f}" y2="{2:.1f}" class="edit"><title>an edit meets the next at {3:.3f} s</title></line>)",
          at(end), y_ - 4, y_ + barHeight + 4, end);
    }
  }

  void soundFaults() {
    for (const SoundPlace& place : inspection_.audio.overlaps) {
      box(place.atSeconds, place.atSeconds + place.milliseconds / 1000, y_ - 3, barHeight + 6, "overlap",
          fmt::format("{:.0f} ms overlap at {:.3f} s", place.milliseconds, place.atSeconds));
    }
    if (!inspection_.audio.hasDrift()) return;
    // Grows along the sound.
    put(R"(<polygon points="{0:.1f},{1:.1f} {2:.1f},{1:.1f} {2:.1f},{3:.1f}" class="drift"><title>the sound drifts by {4}</title></polygon>)",
        left, y_ + barHeight, right, y_ + barHeight - 12,
        lengthText(inspection_.audio.findings->analysis.timelineDriftMs));
  }

  void axis() {
    // A step of 1, 2 or 5 of a power of ten, so that there are at most ten.
    const double power = std::pow(10, std::floor(std::log10(std::max(end_, 0.01) / 10)));
    double step = power;
    for (double factor : {2.0, 5.0, 10.0}) {
      if (end_ / step <= 10) break;
      step = power * factor;
    }
    put(R"(<line x1="{}" y1="{:.1f}" x2="{}" y2="{:.1f}" class="axis"/>)", left, y_, right, y_);
    for (int i = 0; i * step <= end_ * 1.0001; ++i) {
      put(R"(<line x1="{0:.1f}" y1="{1:.1f}" x2="{0:.1f}" y2="{2:.1f}" class="axis"/>)", at(i * step), y_, y_ + 5);
      text(at(i * step), y_ + 18, "", step < 1 ? fmt::format("{:.2f} s", i * step) : clockText(i * step), "middle");
    }
    y_ += 46;
  }

  void faults() {
    const auto list = [&](std::string_view name, const std::vector<std::string>& sentences) {
      if (sentences.empty()) return;
      text(left, y_, "head", name);
      for (size_t i = 0; i < std::min(sentences.size(), mostFaults); ++i) text(left, y_ += 18, "", sentences[i]);
      y_ += 30;
    };
    list("what is wrong", inspection_.summary.wrong);
    list("what a repair did on trial", inspection_.summary.done);
  }

  std::string head() const {
    return fmt::format(
        R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {0} {1:.0f}" width="{0}" height="{1:.0f}" role="img">
<style>
text {{ font: 13px sans-serif; fill: #222 }}
.title {{ font-size: 18px; font-weight: bold }}
.head {{ font-weight: bold }}
.video {{ fill: #3b6ea5 }}
.audio {{ fill: #4f9d5d }}
.hole {{ fill: #fbe3e0; stroke: #c0392b; stroke-dasharray: 3 2 }}
.overlap {{ fill: #e08a1e; fill-opacity: 0.7 }}
.drift {{ fill: #c0392b; fill-opacity: 0.6 }}
.edit {{ stroke: #222; stroke-width: 1.5 }}
.axis {{ stroke: #888 }}
</style>
<rect width="100%" height="100%" fill="#fff"/>
)",
        width, y_);
  }

  const Inspection& inspection_;
  double end_ = 0;  // of the timeline, in seconds
  double y_ = 80;   // of what comes next
  std::string body_;
};

}  // namespace

std::string inspectionPlot(const Inspection& inspection) {
  return Drawing(inspection).make();
}

}  // namespace tarn

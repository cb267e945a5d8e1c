#include "inspect/SoundText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <span>
#include <string_view>

#include "audio/SoundWords.h"

namespace tarn {
namespace {

constexpr size_t mostPlaces = 8;

void listPlaces(std::vector<std::string>& lines, const std::vector<SoundPlace>& places, int64_t count,
                std::string_view article, std::string_view what) {
  const size_t listed = std::min(places.size(), mostPlaces);
  for (const SoundPlace& place : std::span(places).first(listed)) {
    lines.push_back(fmt::format("{} {} of {:.1f} ms at {:.3f} s", article, what, place.milliseconds, place.atSeconds));
  }
  const int64_t more = count - static_cast<int64_t>(listed);
  if (more > 0) lines.push_back(fmt::format("and {} more {}{}", more, what, more == 1 ? "" : "s"));
}

std::string codecLine(const AudioForecast& forecast) {
  const AudioConfigCheck& config = forecast.findings->config;
  const std::string line = fmt::format("{}, {} Hz, {} channel{}", codecName(*forecast.findings), config.sampleRate,
                                       config.channelCount, config.channelCount == 1 ? "" : "s");
  return config.matchesPassthroughTarget ? line + ": its packets can be used as they are" : line;
}

std::string placeText(double secondsBehind) {
  const double milliseconds = std::round(secondsBehind * 1000);
  if (milliseconds == 0) return "level with the picture";
  return fmt::format("{:.3f} s {} the picture", std::abs(milliseconds) / 1000, milliseconds > 0 ? "after" : "ahead of");
}

}  // namespace

std::vector<std::string> soundLines(const AudioForecast& forecast) {
  const AudioFindings& findings = *forecast.findings;
  const AudioAnalysisResult& analysis = findings.analysis;
  std::vector<std::string> lines{codecLine(forecast)};
  if (analysis.startsApart()) {
    lines.push_back(fmt::format("it starts {:.1f} ms {} the picture", std::abs(analysis.initialOffsetMs),
                                analysis.initialOffsetMs < 0 ? "ahead of" : "after"));
  }
  listPlaces(lines, forecast.gaps, analysis.internalGapCount, "a", "gap");
  listPlaces(lines, forecast.overlaps, analysis.overlapCount, "an", "overlap");
  if (forecast.hasDrift()) {
    lines.push_back(fmt::format("its track and its packets differ in length by {:.1f} ms", analysis.timelineDriftMs));
  }
  if (lines.size() == 1) lines.emplace_back("it is whole");
  return lines;
}

std::optional<std::string> soundAgainstPicture(const RepairSummary::Timeline& timeline) {
  if (!timeline.soundBehindAtStart || !timeline.soundBehindAtEnd) return std::nullopt;
  return fmt::format("the sound starts {} and ends {}", placeText(*timeline.soundBehindAtStart),
                     placeText(*timeline.soundBehindAtEnd));
}

std::string audioStepText(const AudioForecast& forecast) {
  switch (forecast.kind) {
    case AudioForecast::Kind::notReached:
    case AudioForecast::Kind::skipped:
    case AudioForecast::Kind::noSound:
      return "is not looked at";
    case AudioForecast::Kind::leavesAlone:
    case AudioForecast::Kind::leavesExtremeDrift:
    case AudioForecast::Kind::leavesToEditList:
      return "stays as it is";
    case AudioForecast::Kind::takesFastPath:
      return "gets silent packets in its gaps, and each packet stays within its own length of where it was";
    case AudioForecast::Kind::transcodes:
      return "is decoded and encoded anew";
  }
  return "";
}

}  // namespace tarn

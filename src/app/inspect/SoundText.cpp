#include "app/inspect/SoundText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace tarn {
namespace {

constexpr size_t mostListedPlaces = 8;
constexpr double worthTellingMs = 10.0;

template <typename Place, typename ToText>
void listPlaces(std::vector<std::string>& lines, const std::vector<Place>& places, const char* what, ToText toText) {
  for (size_t i = 0; i < std::min(places.size(), mostListedPlaces); ++i) lines.push_back(toText(places[i]));
  if (places.size() > mostListedPlaces) {
    lines.push_back(fmt::format("and {} more {}", places.size() - mostListedPlaces, what));
  }
}

std::string codecLine(const AudioFindings& findings) {
  const AudioConfigCheck& config = findings.config;
  std::string line = config.aacObjectType == 2 || config.aacObjectType == 5 || config.aacObjectType == 29
                         ? std::string(text(findings.analysis.aacType))
                         : "not AAC";
  line +=
      fmt::format(", {} Hz, {} channel{}", config.sampleRate, config.channelCount, config.channelCount == 1 ? "" : "s");
  return config.reason ? line + ": " + *config.reason : line + ": its packets can be used as they are";
}

}  // namespace

std::vector<std::string> soundLines(const AudioForecast& forecast) {
  const AudioFindings& findings = *forecast.findings;
  const AudioAnalysisResult& analysis = findings.analysis;
  std::vector<std::string> lines{codecLine(findings)};
  if (std::abs(analysis.initialOffsetMs) >= worthTellingMs) {
    lines.push_back(fmt::format("it starts {:.1f} ms {} the picture", std::abs(analysis.initialOffsetMs),
                                analysis.initialOffsetMs < 0 ? "ahead of" : "after"));
  }
  listPlaces(lines, forecast.holes, "holes", [](const AudioGap& gap) {
    return fmt::format("a hole of {:.1f} ms at {:.3f} s", gap.duration.seconds() * 1000, gap.position.seconds());
  });
  listPlaces(lines, forecast.overlaps, "overlaps", [](const AudioOverlap& overlap) {
    return fmt::format("an overlap of {} frames at {:.3f} s", overlap.framesToDrop, overlap.position.seconds());
  });
  if (analysis.timelineDriftMs >= worthTellingMs) {
    lines.push_back(fmt::format("its track and its packets differ in length by {:.1f} ms", analysis.timelineDriftMs));
  }
  if (findings.scan && findings.scan->needsProcessing) {
    lines.push_back("it starts late against the picture, and no edit list says so");
  }
  if (lines.size() == 1) lines.emplace_back("it is whole");
  return lines;
}

std::string audioStepText(const AudioForecast& forecast) {
  switch (forecast.kind) {
    case AudioForecast::Kind::notReached:
      return "is not reached";
    case AudioForecast::Kind::skipped:
    case AudioForecast::Kind::noSound:
      return "is passed over";
    case AudioForecast::Kind::leavesAlone:
    case AudioForecast::Kind::leavesExtremeDrift:
      return "leaves the sound alone";
    case AudioForecast::Kind::leavesToEditList:
      return "leaves the sound to the edit list (decision editListOnly)";
    case AudioForecast::Kind::takesFastPath:
      return "lays the packets back to back without decoding (decision fastPath)";
    case AudioForecast::Kind::transcodes:
      return "decodes and encodes the sound (decision fullNormalize)";
  }
  return "";
}

std::vector<std::string> audioConsequences(const AudioForecast& forecast) {
  std::vector<std::string> lines;
  if (forecast.kind != AudioForecast::Kind::takesFastPath) return lines;
  // Holes close up: what is behind one moves forward by all that went before.
  double shiftMs = 0;
  listPlaces(lines, forecast.holes, "holes", [&](const AudioGap& gap) {
    shiftMs += gap.duration.seconds() * 1000;
    return fmt::format("from {:.3f} s on the sound moves forward by {:.1f} ms", gap.position.seconds(), shiftMs);
  });
  return lines;
}

}  // namespace tarn

#include "inspect/SoundText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <span>
#include <string_view>

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
  const std::string line = fmt::format("{}, {} Hz, {} channel{}", codecName(forecast), config.sampleRate,
                                       config.channelCount, config.channelCount == 1 ? "" : "s");
  if (config.reason) return line + ": " + *config.reason;
  return config.isAAC ? line + ": its packets can be used as they are" : line;
}

}  // namespace

std::string codecName(const AudioForecast& forecast) {
  static const std::map<std::string, const char*> names = {
      {"ac-3", "AC-3"}, {"ec-3", "E-AC-3"}, {".mp3", "MP3"}, {"alac", "ALAC"}, {"fLaC", "FLAC"},
      {"sowt", "PCM"},  {"twos", "PCM"},    {"lpcm", "PCM"}, {"ipcm", "PCM"},  {"fpcm", "PCM"},
      {"in24", "PCM"},  {"in32", "PCM"},    {"fl32", "PCM"}, {"raw ", "PCM"}};
  if (const auto name = names.find(forecast.codec); name != names.end()) return name->second;
  if (forecast.codec != "mp4a") return forecast.codec.empty() ? "of an unknown codec" : forecast.codec;
  const int64_t objectType = forecast.findings->config.aacObjectType;
  switch (objectType) {
    case 2:
    case 5:
    case 29:
      return std::string(text(forecast.findings->analysis.aacType));
    case 34:
      return "MP3";
    default:
      return fmt::format("audio of object type {}", objectType);
  }
}

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
      return "fills the gaps with silent packets without decoding (decision fastPath)";
    case AudioForecast::Kind::transcodes:
      return "decodes and encodes the sound (decision fullNormalize)";
  }
  return "";
}

std::vector<std::string> audioConsequences(const AudioForecast& forecast) {
  if (forecast.kind != AudioForecast::Kind::takesFastPath) return {};
  return {"each packet stays within its own length of where it was"};
}

}  // namespace tarn

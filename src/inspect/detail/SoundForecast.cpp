#include "inspect/detail/SoundForecast.h"

#include <fmt/format.h>

#include "audio/AudioRepairDecision.h"
#include "inspect/SoundText.h"
#include "inspect/detail/MovieFacts.h"
#include "media/AVAsset.h"

namespace tarn {
namespace {

using Kind = AudioForecast::Kind;

void listGaps(AudioForecast& forecast) {
  const AudioAnalysisResult& analysis = forecast.findings->analysis;
  const auto coreRate = static_cast<double>(forecast.findings->config.sampleRate);
  const double rate = coreRate * (analysis.aacType == AACType::aacLC ? 1 : 2);
  for (const AudioGap& gap : analysis.internalGaps) {
    if (forecast.gaps.size() == mostListed) break;
    forecast.gaps.push_back({.atSeconds = gap.position.seconds(), .milliseconds = gap.duration.seconds() * 1000});
  }
  for (const AudioOverlap& overlap : analysis.internalOverlaps) {
    if (forecast.overlaps.size() == mostListed) break;
    forecast.overlaps.push_back({.atSeconds = overlap.position.seconds(),
                                 .milliseconds = static_cast<double>(overlap.framesToDrop) / rate * 1000});
  }
}

/// "45 ms", "1.0 s".
std::string lengthText(double milliseconds) {
  return milliseconds < 999.5 ? fmt::format("{:.0f} ms", milliseconds) : fmt::format("{:.1f} s", milliseconds / 1000);
}

std::string placesText(const std::vector<SoundPlace>& places, int64_t count) {
  const std::string first = places.empty() ? "" : fmt::format("at {}", clockText(places.front().atSeconds));
  return count == 1 ? first : fmt::format("in {} places, first {}", count, first);
}

void listProblems(const AudioForecast& forecast, std::vector<std::string>& problems) {
  const AudioFindings& findings = *forecast.findings;
  const AudioAnalysisResult& analysis = findings.analysis;
  if (analysis.internalGapCount > 0) {
    problems.push_back(fmt::format("{} of sound missing {}", lengthText(analysis.totalInternalGapMs),
                                   placesText(forecast.gaps, analysis.internalGapCount)));
  }
  if (analysis.overlapCount > 0) {
    problems.push_back(fmt::format("{} of sound laid over other sound {}", lengthText(analysis.totalOverlapMs),
                                   placesText(forecast.overlaps, analysis.overlapCount)));
  }
  if (forecast.hasDrift()) {
    problems.push_back(fmt::format("the sound drifts: its track and its packets differ in length by {}",
                                   lengthText(analysis.timelineDriftMs)));
  }
  if (findings.conversion && findings.config.isAAC) problems.push_back(*findings.conversion);
  if (findings.conversion && !findings.config.isAAC) {
    problems.push_back(fmt::format("the sound is {}, which many players do not take, and is encoded anew as AAC",
                                   codecName(forecast)));
  }
  if (findings.lostChannels) problems.push_back(*findings.lostChannels);
  if (findings.obstacle && problems.empty()) problems.push_back(*findings.obstacle);
}

void forecastTranscode(AudioForecast& forecast, const std::string& reason) {
  const AudioAnalysisResult& analysis = forecast.findings->analysis;
  if (hasExtremeDrift(analysis)) {
    forecast.kind = Kind::leavesExtremeDrift;
    forecast.reason = fmt::format("its drift of {:.1f} s is beyond repair", analysis.timelineDriftMs / 1000);
    return;
  }
  forecast.kind = Kind::transcodes;
  forecast.reason = reason;
  if (forecast.findings->config.matchesPassthroughTarget && analysis.needsTranscoding) {
    forecast.reason += fmt::format("; its drift is {:.1f} ms a minute, and the fast path bears less than {:.0f}",
                                   analysis.driftRate(), RepairDecision::tooHighDriftRate);
  }
}

void tellWhatIsDecided(AudioForecast& forecast) {
  const AudioFindings& findings = *forecast.findings;
  switch (findings.decision.kind) {
    case RepairDecision::Kind::skip:
      forecast.kind = Kind::leavesAlone;
      forecast.reason = findings.obstacle.value_or("no gap, drift or offset of it is long enough to count");
      return;
    case RepairDecision::Kind::editListOnly:
      forecast.kind = Kind::leavesToEditList;
      forecast.reason = fmt::format("only its start differs, by {:.1f} ms", findings.analysis.initialOffsetMs);
      return;
    case RepairDecision::Kind::fastPath:
      forecast.kind = Kind::takesFastPath;
      forecast.reason =
          fmt::format("the damage is light, with a drift of {:.1f} ms a minute", findings.analysis.driftRate());
      return;
    case RepairDecision::Kind::fullNormalize:
      return forecastTranscode(forecast, findings.decision.reason);
  }
}

}  // namespace

AudioForecast forecastAudioStep(FileManager& files, const Path& path, bool needsAudioTranscode,
                                std::vector<std::string>& problems) {
  const AVAsset asset(files, path);
  const auto tracks = asset.tracks(AVMediaType::audio);
  if (tracks.empty()) return {.kind = Kind::noSound, .reason = "there is no audio track"};
  if (!needsAudioTranscode) return {.kind = Kind::skipped, .reason = "the file's sound is not looked at"};
  AudioForecast forecast;
  forecast.findings = decideAudioRepair(files, path);
  const auto& descriptions = tracks.front().formatDescriptions;
  if (!descriptions.empty()) forecast.codec = descriptions.front()->codec;
  listGaps(forecast);
  listProblems(forecast, problems);
  tellWhatIsDecided(forecast);
  return forecast;
}

std::vector<std::string> soundWarnings(const AudioForecast& forecast) {
  if (!forecast.findings) return {};
  if (forecast.findings->obstacle) return {*forecast.findings->obstacle};
  std::vector<std::string> warnings;
  if (forecast.findings->lostChannels) warnings.push_back(*forecast.findings->lostChannels);
  if (forecast.kind == Kind::leavesExtremeDrift) warnings.push_back("The sound stays as it is: " + forecast.reason);
  return warnings;
}

}  // namespace tarn

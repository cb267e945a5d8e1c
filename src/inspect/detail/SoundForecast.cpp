#include "inspect/detail/SoundForecast.h"

#include <fmt/format.h>

#include "audio/SoundWords.h"
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

void tellWhatIsDecided(AudioForecast& forecast) {
  const AudioFindings& findings = *forecast.findings;
  switch (findings.decision.kind) {
    case RepairDecision::Kind::skip:
      forecast.kind = Kind::leavesAlone;
      forecast.reason = findings.obstacle.value_or("it has no gap and no drift that is long enough to count");
      return;
    case RepairDecision::Kind::editListOnly:
      forecast.kind = Kind::leavesToEditList;
      forecast.reason = fmt::format("it is whole, and its start is {:.1f} ms from that of the pictures",
                                    findings.analysis.initialOffsetMs);
      return;
    case RepairDecision::Kind::fastPath:
      forecast.kind = Kind::takesFastPath;
      forecast.reason = "the gaps are few and short";
      return;
    case RepairDecision::Kind::fullNormalize:
      if (hasExtremeDrift(findings.analysis)) {
        forecast.kind = Kind::leavesExtremeDrift;
        forecast.reason = extremeDriftWords(findings);
      } else {
        forecast.kind = Kind::transcodes;
        forecast.reason = whyEncoded(findings);
      }
  }
}

}  // namespace

AudioForecast forecastAudioStep(FileManager& files, const Path& path, bool needsAudioTranscode) {
  const AVAsset asset(files, path);
  const auto tracks = asset.tracks(AVMediaType::audio);
  if (tracks.empty()) return {.kind = Kind::noSound, .reason = "there is no audio track"};
  if (!needsAudioTranscode) return {.kind = Kind::skipped, .reason = "the repair leaves sound like this alone"};
  AudioForecast forecast;
  forecast.findings = decideAudioRepair(files, path);
  listGaps(forecast);
  tellWhatIsDecided(forecast);
  return forecast;
}

std::string doneToSound(const AudioForecast& forecast) {
  return forecast.kind == Kind::takesFastPath ? doneByPackets(*forecast.findings) : doneByEncoding(*forecast.findings);
}

std::vector<std::string> soundWarnings(const AudioForecast& forecast) {
  if (!forecast.findings) return {};
  if (forecast.findings->obstacle) return {*forecast.findings->obstacle};
  std::vector<std::string> warnings;
  if (forecast.findings->lostChannels) warnings.push_back(*forecast.findings->lostChannels);
  if (forecast.kind == Kind::leavesExtremeDrift) warnings.push_back(forecast.reason);
  return warnings;
}

}  // namespace tarn

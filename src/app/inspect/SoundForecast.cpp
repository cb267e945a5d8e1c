#include "app/inspect/SoundForecast.h"

#include <fmt/format.h>

#include <algorithm>

#include "app/inspect/MovieFacts.h"
#include "audio/AudioTranscoder.h"
#include "audio/FastPathAudioBuilder.h"

namespace tarn {
namespace {

using Kind = AudioForecast::Kind;

void listHoles(const AVAsset& asset, const AVAssetTrack& track, AudioForecast& forecast) {
  const AudioAnalysisResult& analysis = forecast.findings->analysis;
  const double rate = AudioTranscoder::detectActualSampleRate(track);
  const double start = AudioTranscoder::getFirstPTSForTracks(asset).audio.seconds();
  const auto inside = AudioTranscoder::detectInternalGaps(asset, track, analysis.aacType, analysis.gapThresholdMs());
  for (const AudioGap& gap : inside.gaps) {
    if (forecast.holes.size() == mostListed) break;
    const double end = gap.position.seconds() + gap.duration.seconds();
    const double packedEnd = start + static_cast<double>(gap.sampleOffset) / rate;
    forecast.holes.push_back({.atSeconds = gap.position.seconds(),
                              .milliseconds = gap.duration.seconds() * 1000,
                              .shiftMilliseconds = (end - packedEnd) * 1000});
  }
  for (const AudioOverlap& overlap : inside.overlaps) {
    if (forecast.overlaps.size() == mostListed) break;
    forecast.overlaps.push_back({.atSeconds = overlap.position.seconds(),
                                 .milliseconds = static_cast<double>(overlap.framesToDrop) / rate * 1000});
  }
}

std::string counted(int64_t count, const char* one, const char* many) {
  return count == 1 ? one : fmt::format("{} {}", count, many);
}

bool isCountTrue(const AVAssetTrack& track, const AudioFindings& findings) {
  if (track.formatDescriptions.empty()) return false;
  const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(*track.formatDescriptions.front());
  if (!stream || stream->mFormatID != kAudioFormatMPEG4AAC) return false;
  const double length = samplesPerPacket(findings.analysis.aacType) / AudioTranscoder::detectActualSampleRate(track);
  return length == stream->mFramesPerPacket / stream->mSampleRate;
}

void listProblems(const AudioForecast& forecast, std::vector<std::string>& problems) {
  const AudioAnalysisResult& analysis = forecast.findings->analysis;
  if (analysis.internalGapCount > 0) {
    problems.push_back(fmt::format("the sound has {}, {:.1f} ms in all",
                                   counted(analysis.internalGapCount, "a hole", "holes"), analysis.totalInternalGapMs));
  }
  if (analysis.overlapCount > 0) {
    problems.push_back(fmt::format("the sound has {}, {:.1f} ms in all",
                                   counted(analysis.overlapCount, "an overlap", "overlaps"), analysis.totalOverlapMs));
  }
  if (forecast.hasDrift() && forecast.isCountTrue) {
    problems.push_back(
        fmt::format("the sound's track and its packets differ in length by {:.1f} ms", analysis.timelineDriftMs));
  }
}

/// Why the fast path gives up on packets as these are, so that they are decoded after all; nothing when it does not.
std::optional<std::string> whyTheFastPathFails(const AudioConfigCheck& config) {
  if (config.sampleDelta < 1) return "the packets have no length";
  try {
    FastPathAudioBuilder::requireTrueSampleDelta(config);
    return std::nullopt;
  } catch (const FastPathError& failure) {
    return failure.description();
  }
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
      forecast.reason = "no hole, drift or offset of it is long enough to count";
      return;
    case RepairDecision::Kind::editListOnly:
      forecast.kind = Kind::leavesToEditList;
      forecast.reason = fmt::format("only its start differs, by {:.1f} ms", findings.analysis.initialOffsetMs);
      return;
    case RepairDecision::Kind::fastPath:
      if (const auto failure = whyTheFastPathFails(findings.config)) {
        return forecastTranscode(forecast, "The fast path fails: " + *failure);
      }
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
  forecast.isCountTrue = isCountTrue(tracks.front(), *forecast.findings);
  listProblems(forecast, problems);
  try {
    listHoles(asset, tracks.front(), forecast);
  } catch (const Error& failure) {
    problems.push_back("sound: " + failure.description());
  }
  tellWhatIsDecided(forecast);
  return forecast;
}

}  // namespace tarn

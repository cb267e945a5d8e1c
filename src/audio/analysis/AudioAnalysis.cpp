#include "audio/analysis/AudioAnalysis.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "audio/analysis/AudioTimeline.h"

namespace tarn {

std::string_view text(AACType type) {
  switch (type) {
    case AACType::heAACv1:
      return "HE-AAC-v1";
    case AACType::heAACv2:
      return "HE-AAC-v2";
    case AACType::aacLC:
      break;
  }
  return "AAC-LC";
}

int samplesPerPacket(AACType type) {
  return type == AACType::aacLC ? 1024 : 2048;
}

std::string_view text(GapType type) {
  switch (type) {
    case GapType::initialOffsetOnly:
      return "initialOffsetOnly";
    case GapType::internalGaps:
      return "internalGaps";
    case GapType::timelineDrift:
      return "timelineDrift";
    case GapType::clean:
      break;
  }
  return "clean";
}

std::string_view text(SilenceReason reason) {
  switch (reason) {
    case SilenceReason::audioGapNoVideoGap:
      return "audioGapNoVideoGap";
    case SilenceReason::videoGapNoAudioGap:
      return "videoGapNoAudioGap";
    case SilenceReason::audioStartsLate:
      break;
  }
  return "audioStartsLate";
}

bool AudioAnalysisResult::startsApart() const {
  constexpr double shortestOffsetMs = 10.0;
  const double offset = std::abs(initialOffsetMs);
  return offset >= shortestOffsetMs && offset > gapThresholdMs();
}

double AudioAnalysisResult::driftRate() const {
  const double minutes = std::max(durationSeconds / 60, 1.0 / 60);
  return std::abs(timelineDriftMs / minutes);
}

std::string AudioAnalysisResult::summary() const {
  std::string line =
      fmt::format("GapType: {}, InitialOffset: {:.1f}ms, InternalGaps: {} (max: {:.1f}ms), Drift: {:.1f}ms, AAC: {}",
                  text(gapType), initialOffsetMs, internalGapCount, maxInternalGapMs, timelineDriftMs, text(aacType));
  if (gapType == GapType::timelineDrift) line += " (video/audio mismatch likely)";
  return line;
}

std::string RepairDecision::description() const {
  switch (kind) {
    case Kind::editListOnly:
      return "editListOnly";
    case Kind::fastPath:
      return "fastPath";
    case Kind::fullNormalize:
      return "fullNormalize(" + reason + ")";
    case Kind::skip:
      break;
  }
  return "skip";
}

std::string QuickCrossTrackResult::description() const {
  return fmt::format("QuickCrossTrackResult: {} actions needed, videoGaps={}, audioGaps={}, needsProcessing={}",
                     silenceActions.size(), videoGaps, audioGaps, needsProcessing);
}

}  // namespace tarn

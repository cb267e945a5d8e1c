#include "audio/SoundWords.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <map>

namespace tarn {
namespace {

/// "a gap of 65 ms at 0:02", "3 gaps, 2.4 s in all, the first at 0:02".
std::string placesText(const char* one, const char* several, int64_t count, double milliseconds, const CMTime& first) {
  const std::string length = lengthText(milliseconds), at = clockText(first.seconds());
  return count == 1 ? fmt::format("{} of {} at {}", one, length, at)
                    : fmt::format("{} {}, {} in all, the first at {}", count, several, length, at);
}

/// "a", "a and b", "a, b and c".
std::string listed(const std::vector<std::string>& parts) {
  if (parts.size() < 2) return parts.empty() ? "" : parts.front();
  return fmt::format("{} and {}", fmt::join(parts.begin(), parts.end() - 1, ", "), parts.back());
}

bool drifts(const AudioAnalysisResult& analysis) {
  return analysis.gapType == GapType::timelineDrift;
}

std::string filled(const AudioAnalysisResult& analysis) {
  return analysis.internalGapCount == 1 ? "filled the gap with silence" : "filled the gaps with silence";
}

}  // namespace

std::string codecName(const AudioFindings& findings) {
  static const std::map<std::string, const char*> names = {
      {"ac-3", "AC-3"}, {"ec-3", "E-AC-3"}, {".mp3", "MP3"}, {"alac", "ALAC"}, {"fLaC", "FLAC"},
      {"sowt", "PCM"},  {"twos", "PCM"},    {"lpcm", "PCM"}, {"ipcm", "PCM"},  {"fpcm", "PCM"},
      {"in24", "PCM"},  {"in32", "PCM"},    {"fl32", "PCM"}, {"raw ", "PCM"}};
  if (const auto name = names.find(findings.codec); name != names.end()) return name->second;
  if (findings.codec != "mp4a") return findings.codec.empty() ? "of an unknown codec" : findings.codec;
  switch (const int64_t objectType = findings.config.aacObjectType) {
    case 2:
    case 5:
    case 29:
      return std::string(text(findings.analysis.aacType));
    case 34:
      return "MP3";
    default:
      return fmt::format("audio of object type {}", objectType);
  }
}

std::vector<std::string> wrongWithSound(const AudioFindings& findings) {
  const AudioAnalysisResult& analysis = findings.analysis;
  std::vector<std::string> faults;
  if (!analysis.internalGaps.empty()) {
    faults.push_back("the sound has " + placesText("a gap", "gaps", analysis.internalGapCount,
                                                   analysis.totalInternalGapMs,
                                                   analysis.internalGaps.front().position));
  }
  if (!analysis.internalOverlaps.empty()) {
    faults.push_back("the sound has " + placesText("an overlap", "overlaps", analysis.overlapCount,
                                                   analysis.totalOverlapMs,
                                                   analysis.internalOverlaps.front().position));
  }
  if (drifts(analysis)) {
    faults.push_back(fmt::format("the sound drifts: its track and what it holds differ in length by {}",
                                 lengthText(analysis.timelineDriftMs)));
  }
  const bool isRemade = findings.decision.kind == RepairDecision::Kind::fullNormalize;
  if (isRemade && !findings.config.isAAC) {
    faults.push_back(fmt::format("the sound is {}, which many players do not take", codecName(findings)));
  } else if (isRemade && !findings.config.isStable) {
    faults.emplace_back("the sound changes its settings on the way, which many players do not take");
  }
  if (isRemade && faults.empty()) faults.emplace_back("the times of the sound cannot be worked out from its packets");
  if (findings.obstacle) faults.push_back(*findings.obstacle);
  if (isRemade && hasExtremeDrift(analysis)) faults.push_back(extremeDriftWords(findings));
  return faults;
}

std::string doneByPackets(const AudioFindings& findings) {
  if (findings.analysis.internalGapCount == 0) return "laid the packets of the sound back to their times";
  return filled(findings.analysis);
}

std::string doneByEncoding(const AudioFindings& findings) {
  const AudioAnalysisResult& analysis = findings.analysis;
  std::vector<std::string> parts;
  if (analysis.internalGapCount > 0) parts.push_back(filled(analysis));
  if (analysis.overlapCount > 0) parts.emplace_back("cut what overlapped");
  if (drifts(analysis)) parts.emplace_back("took the drift out");
  parts.emplace_back(findings.config.isAAC ? "encoded the sound anew" : "converted the sound to AAC");
  return listed(parts);
}

std::string whyEncoded(const AudioFindings& findings) {
  if (!findings.config.isAAC) return fmt::format("the sound is {}, not AAC", codecName(findings));
  if (!findings.config.isStable) return "the sound changes its settings on the way";
  if (!findings.config.matchesPassthroughTarget) {
    return "silent packets can only be put into stereo AAC-LC of 24, 44.1 or 48 kHz";
  }
  if (drifts(findings.analysis)) return "silent packets cannot take a drift out";
  return "more is missing than silent packets are used for";
}

std::string extremeDriftWords(const AudioFindings& findings) {
  return fmt::format("The sound stays as it is: its drift of {:.1f} s is beyond repair",
                     findings.analysis.timelineDriftMs / 1000);
}

std::string lengthText(double milliseconds) {
  return milliseconds < 999.5 ? fmt::format("{:.0f} ms", milliseconds) : fmt::format("{:.1f} s", milliseconds / 1000);
}

std::string clockText(double seconds) {
  const auto whole = static_cast<int64_t>(std::max(seconds, 0.0));
  if (whole < 3600) return fmt::format("{}:{:02}", whole / 60, whole % 60);
  return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace tarn

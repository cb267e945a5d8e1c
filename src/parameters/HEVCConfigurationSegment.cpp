#include "parameters/HEVCConfigurationSegment.h"

#include <fmt/ranges.h>

#include <array>
#include <string_view>
#include <utility>

#include "parameters/NALCodec.h"
#include "parameters/ParameterSetCollector.h"
#include "parameters/ParameterSetWalk.h"
#include "platform/Error.h"
#include "platform/Log.h"
#include "platform/SHA256.h"

namespace tarn {
namespace {

/// Bounds memory where a damaged sample table leads from one set to another at every sample: the bytes of all units,
/// and what holding a unit and a run takes besides.
constexpr size_t mostBytes = 24 << 20;
constexpr size_t bytesPerUnit = 64;
constexpr size_t bytesPerRun = 256;

/// All that the detection of one codec has of its own.
struct Detection {
  NALWalkRules walk;
  ParameterSetRules sets;
  const char* domain;
  std::string_view prefix;       ///< of its last line
  std::string_view errorPrefix;  ///< of the failures' texts
  void (*reportStart)(size_t samples);
  void (*reportSegment)(size_t number, const ConfigurationSegment& segment);
};

void reportHEVCStart(size_t samples) {
  logLine("\n=== Configuration Segment Detection ===");
  log("Scanning {} IRAP samples to detect configuration changes...", samples);
}

void reportAVCStart(size_t samples) {
  logLine("\n=== AVC Configuration Segment Detection ===");
  log("Scanning {} sync samples to detect configuration changes...", samples);
}

void reportHEVCSegment(size_t number, const ConfigurationSegment& s) {
  log("Segment {}: samples {}-{} ({} samples)", number, s.startSampleIndex, s.endSampleIndex, s.sampleCount());
  log("  VPS: {}, SPS: {}, PPS: {}", s.vpsSet.size(), s.spsSet.size(), s.ppsSet.size());
}

void reportAVCSegment(size_t number, const ConfigurationSegment& s) {
  log("AVC Segment {}: samples {}-{} ({} samples)", number, s.startSampleIndex, s.endSampleIndex, s.sampleCount());
  log("  SPS: {}, PPS: {}", s.spsSet.size(), s.ppsSet.size());
}

constexpr Detection hevcDetection{
    .walk = {.codec = hevcNALCodec, .stopsAtSlice = true, .logsDamage = false},
    .sets = {.codec = hevcNALCodec,
             .headerBytesInRbsp = 2,
             .pictureSize = nullptr,
             .identifier = nullptr,
             .report = nullptr},
    .domain = "HEVCConfigurationSegment",
    .prefix = "",
    .errorPrefix = "",
    .reportStart = reportHEVCStart,
    .reportSegment = reportHEVCSegment,
};

constexpr Detection avcDetection{
    .walk = {.codec = avcNALCodec, .stopsAtSlice = true, .logsDamage = false},
    .sets = {.codec = avcNALCodec,
             .headerBytesInRbsp = 0,
             .pictureSize = nullptr,
             .identifier = nullptr,
             .report = nullptr},
    .domain = "AVCConfigurationSegment",
    .prefix = "AVC: ",
    .errorPrefix = "AVC ",
    .reportStart = reportAVCStart,
    .reportSegment = reportAVCSegment,
};

/// The SHA-256 of each unit, one over the other: the order of the units does not matter.
std::string computeFingerprint(const ParameterSets& sets) {
  std::array<uint8_t, 32> sum{};
  for (const auto* units : {&sets.vpsArray, &sets.spsArray, &sets.ppsArray}) {
    for (const Bytes& unit : *units) {
      auto digest = sha256(unit);
      for (size_t i = 0; i < sum.size(); ++i) sum[i] ^= digest[i];
    }
  }
  return fmt::format("{:02x}", fmt::join(sum, ""));
}

bool hasSets(const ConfigurationSegment& segment, const ParameterSets& sets) {
  return segment.vpsSet == sets.vpsArray && segment.spsSet == sets.spsArray && segment.ppsSet == sets.ppsArray;
}

size_t memoryOf(const ParameterSets& sets) {
  size_t count = bytesPerRun;
  for (const auto* units : {&sets.vpsArray, &sets.spsArray, &sets.ppsArray, &sets.spsRbspArray}) {
    for (const Bytes& unit : *units) count += unit.size() + bytesPerUnit;
  }
  return count;
}

/// The parameter sets that stand ahead of the sample's first slice.
ParameterSets extractConfiguration(FileHandle& file, const SampleInfo& sample, int nalLengthSize,
                                   const Detection& detection) {
  ParameterSetCollector collector(detection.sets);
  ParameterSetWalk walk(file, sample, nalLengthSize, detection.walk);
  while (auto unit = walk.next()) collector.processNALUnit(std::move(*unit));
  return std::move(collector).take();
}

/// Puts the runs together, one sync sample after the other.
class SegmentList {
 public:
  explicit SegmentList(const Detection& detection) : detection_(detection) {}

  void add(int64_t sampleIndex, ParameterSets sets) {
    if (!segments_.empty() && hasSets(segments_.back(), sets)) return;  // the usual case needs no digest
    std::string fingerprint = computeFingerprint(sets);
    if (!segments_.empty() && segments_.back().fingerprint == fingerprint) return;
    // The samples ahead of the first sync sample have its configuration.
    int64_t start = segments_.empty() ? 0 : sampleIndex;
    closeLast(start - 1);
    bytes_ += memoryOf(sets);
    if (bytes_ > mostBytes) throw failure("Too many {}configuration segments");
    segments_.push_back({.startSampleIndex = start,
                         .vpsSet = std::move(sets.vpsArray),
                         .spsSet = std::move(sets.spsArray),
                         .ppsSet = std::move(sets.ppsArray),
                         .spsRbspSet = std::move(sets.spsRbspArray),
                         .fingerprint = std::move(fingerprint)});
  }

  std::vector<ConfigurationSegment> finish(int64_t totalSampleCount) && {
    closeLast(totalSampleCount - 1);
    log("\n{}Detected {} configuration segment(s)", detection_.prefix, segments_.size());
    if (segments_.empty()) throw failure("No {}configuration segments detected");
    return std::move(segments_);
  }

 private:
  void closeLast(int64_t endSampleIndex) {
    if (segments_.empty()) return;
    segments_.back().endSampleIndex = endSampleIndex;
    detection_.reportSegment(segments_.size(), segments_.back());
  }

  Error failure(fmt::format_string<const std::string_view&> text) const {
    return {detection_.domain, -1, fmt::format(text, detection_.errorPrefix)};
  }

  const Detection& detection_;
  std::vector<ConfigurationSegment> segments_;
  size_t bytes_ = 0;
};

std::vector<ConfigurationSegment> detect(FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize,
                                         int64_t totalSampleCount, const Detection& detection) {
  detection.reportStart(syncSamples.size());
  SegmentList segments(detection);
  for (const SampleInfo& sample : syncSamples) {
    segments.add(sample.index, extractConfiguration(file, sample, nalLengthSize, detection));
  }
  return std::move(segments).finish(totalSampleCount);
}

}  // namespace

std::vector<ConfigurationSegment> HEVCConfigurationSegmentDetector::detectSegments(
    FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize, int64_t totalSampleCount) {
  return detect(file, syncSamples, nalLengthSize, totalSampleCount, hevcDetection);
}

std::vector<AVCConfigurationSegment> AVCConfigurationSegmentDetector::detectSegments(
    FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize, int64_t totalSampleCount) {
  return detect(file, syncSamples, nalLengthSize, totalSampleCount, avcDetection);
}

}  // namespace tarn

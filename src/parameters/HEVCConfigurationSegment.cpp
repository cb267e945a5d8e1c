#include "parameters/HEVCConfigurationSegment.h"

#include "parameters/SegmentList.h"
#include "parameters/SetRules.h"
#include "parameters/detail/NALCodec.h"
#include "parameters/detail/ParameterSetWalk.h"
#include "platform/Log.h"

namespace tarn {
namespace {

void reportHEVCSegment(size_t number, const ConfigurationSegment& s) {
  log("Segment {}: samples {}-{} ({} samples)", number, s.startSampleIndex, s.endSampleIndex, s.sampleCount());
  log("  VPS: {}, SPS: {}, PPS: {}", s.sets.vpsArray.size(), s.sets.spsArray.size(), s.sets.ppsArray.size());
}

void reportAVCSegment(size_t number, const ConfigurationSegment& s) {
  log("AVC Segment {}: samples {}-{} ({} samples)", number, s.startSampleIndex, s.endSampleIndex, s.sampleCount());
  log("  SPS: {}, PPS: {}", s.sets.spsArray.size(), s.sets.ppsArray.size());
}

constexpr ParameterSetRules hevcSets{.codec = hevcNALCodec,
                                     .headerBytesInRbsp = 2,
                                     .pictureSize = nullptr,
                                     .identifier = parseHEVCParameterSetID,
                                     .isReadable = nullptr,
                                     .report = nullptr};
constexpr ParameterSetRules avcSets{.codec = avcNALCodec,
                                    .headerBytesInRbsp = 0,
                                    .pictureSize = nullptr,
                                    .identifier = parseAVCParameterSetID,
                                    .isReadable = nullptr,
                                    .report = nullptr};

constexpr SegmentRules hevcSegments{.sets = hevcSets,
                                    .joinsCompatibleSets = false,
                                    .domain = "HEVCConfigurationSegment",
                                    .prefix = "",
                                    .errorPrefix = "",
                                    .reportSegment = reportHEVCSegment};
constexpr SegmentRules avcSegments{.sets = avcSets,
                                   .joinsCompatibleSets = false,
                                   .domain = "AVCConfigurationSegment",
                                   .prefix = "AVC: ",
                                   .errorPrefix = "AVC ",
                                   .reportSegment = reportAVCSegment};

std::vector<ConfigurationSegment> detect(FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize,
                                         int64_t totalSampleCount, const ParameterSets& ofSampleEntry,
                                         const SegmentRules& rules) {
  SegmentList segments(rules);
  if (!syncSamples.empty()) segments.enterSampleEntry(syncSamples.front().index, ofSampleEntry);
  const NALWalkRules walk{.codec = rules.sets.codec, .stopsAtSlice = true, .logsDamage = false};
  for (const SampleInfo& sample : syncSamples) {
    segments.addSyncSample(sample.index, readCarriedSets(file, sample, nalLengthSize, walk, rules.sets));
  }
  return std::move(segments).finish(totalSampleCount);
}

}  // namespace

std::vector<ConfigurationSegment> HEVCConfigurationSegmentDetector::detectSegments(
    FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize, int64_t totalSampleCount,
    const ParameterSets& ofSampleEntry) {
  logLine("\n=== Configuration Segment Detection ===");
  log("Scanning {} IRAP samples to detect configuration changes...", syncSamples.size());
  return detect(file, syncSamples, nalLengthSize, totalSampleCount, ofSampleEntry, hevcSegments);
}

std::vector<AVCConfigurationSegment> AVCConfigurationSegmentDetector::detectSegments(
    FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize, int64_t totalSampleCount,
    const ParameterSets& ofSampleEntry) {
  logLine("\n=== AVC Configuration Segment Detection ===");
  log("Scanning {} sync samples to detect configuration changes...", syncSamples.size());
  return detect(file, syncSamples, nalLengthSize, totalSampleCount, ofSampleEntry, avcSegments);
}

}  // namespace tarn

#include "parameters/detail/ScanRules.h"

#include <optional>
#include <vector>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/NALUnitParser.h"
#include "parameters/detail/SetRules.h"
#include "platform/Log.h"

namespace tarn {
namespace {

void reportKind(std::string_view name, const std::vector<Bytes>& units) {
  log("  - {}: {} unique sets ({} bytes first)", name, units.size(), units.front().size());
}

void reportHEVCSet(ParameterSetKind kind, size_t bytes, const std::optional<PictureSize>& size, size_t count) {
  if (kind != ParameterSetKind::sps || size) return;
  log("Found SPS ({} bytes) - resolution parsing failed (corrupt or unsupported format) - total SPS: {}", bytes, count);
}

void reportAVCSet(ParameterSetKind kind, size_t bytes, const std::optional<PictureSize>& size, size_t /*count*/) {
  if (kind == ParameterSetKind::pps) log("AVC: Found PPS ({} bytes)", bytes);
  if (size) log("AVC: Found SPS ({} bytes) - resolution: {}x{}", bytes, size->width, size->height);
}

void reportHEVCStart(size_t samples) {
  log("Scanning ALL {} IRAP samples for complete parameter set collection...", samples);
  log("Note: Parameter sets can change at any point in video (dynamic resolution)");
}

void reportAVCStart(size_t samples) {
  log("AVC: Scanning {} sync samples for parameter sets...", samples);
}

void reportHEVCSegmentStart(size_t samples) {
  logLine("\n=== Configuration Segment Detection ===");
  log("Scanning {} IRAP samples to detect configuration changes...", samples);
}

void reportAVCSegmentStart(size_t samples) {
  logLine("\n=== AVC Configuration Segment Detection ===");
  log("Scanning {} sync samples to detect configuration changes...", samples);
}

void reportHEVCResult(const ParameterSets& sets, size_t samples) {
  log("Successfully extracted ALL parameter sets from {} IRAP samples:", samples);
  reportKind("VPS", sets.vpsArray);
  reportKind("SPS", sets.spsArray);
  reportKind("PPS", sets.ppsArray);
  log("Parameter set collection is COMPLETE - scanned entire video for dynamic resolution support");
}

void reportAVCResult(const ParameterSets& sets, size_t samples) {
  log("AVC: Successfully extracted parameter sets from {} sync samples:", samples);
  reportKind("SPS", sets.spsArray);
  reportKind("PPS", sets.ppsArray);
  if (sets.hasResolutionChanges) log("  - Dynamic resolution changes detected");
}

void reportHEVCSegment(size_t number, const ConfigurationSegment& s) {
  log("Segment {}: samples {}-{} ({} samples)", number, s.startSampleIndex, s.endSampleIndex, s.sampleCount());
  log("  VPS: {}, SPS: {}, PPS: {}", s.sets.vpsArray.size(), s.sets.spsArray.size(), s.sets.ppsArray.size());
}

void reportAVCSegment(size_t number, const ConfigurationSegment& s) {
  log("AVC Segment {}: samples {}-{} ({} samples)", number, s.startSampleIndex, s.endSampleIndex, s.sampleCount());
  log("  SPS: {}, PPS: {}", s.sets.spsArray.size(), s.sets.ppsArray.size());
}

void reportPlannedSegment(size_t number, const ConfigurationSegment& s) {
  log("Segment {}: samples {}-{}", number, s.startSampleIndex, s.endSampleIndex);
}

constexpr ParameterSetRules hevcSets{.codec = hevcNALCodec,
                                     .pictureSize = NALUnitParser::parseSPSResolution,
                                     .isReadable = nullptr,
                                     .report = reportHEVCSet};
constexpr ParameterSetRules avcSets{.codec = avcNALCodec,
                                    .pictureSize = AVCConfigurationBox::parseSPSResolution,
                                    .isReadable = nullptr,
                                    .report = reportAVCSet};

/// Takes the same sets, but asks for no size and logs nothing.
constexpr ParameterSetRules silent(ParameterSetRules rules) {
  rules.pictureSize = nullptr;
  rules.report = nullptr;
  return rules;
}
constexpr ParameterSetRules hevcSilentSets = silent(hevcSets);
constexpr ParameterSetRules avcSilentSets = silent(avcSets);

constexpr SegmentRules hevcSegments{.sets = hevcSilentSets,
                                    .joinsCompatibleSets = false,
                                    .reportStart = reportHEVCSegmentStart,
                                    .domain = "HEVCConfigurationSegment",
                                    .prefix = "",
                                    .errorPrefix = "",
                                    .reportSegment = reportHEVCSegment};
constexpr SegmentRules avcSegments{.sets = avcSilentSets,
                                   .joinsCompatibleSets = false,
                                   .reportStart = reportAVCSegmentStart,
                                   .domain = "AVCConfigurationSegment",
                                   .prefix = "AVC: ",
                                   .errorPrefix = "AVC ",
                                   .reportSegment = reportAVCSegment};

constexpr SegmentRules plannedSegments(const ParameterSetRules& sets) {
  return {.sets = sets,
          .joinsCompatibleSets = true,
          .reportStart = nullptr,
          .domain = "VideoPlan",
          .prefix = "",
          .errorPrefix = "",
          .reportSegment = reportPlannedSegment};
}
constexpr SegmentRules hevcPlannedSegments = plannedSegments(hevcReadableSets);
constexpr SegmentRules avcPlannedSegments = plannedSegments(avcReadableSets);

constexpr ScanUse extractionUse(const ParameterSetRules& sets, const SegmentRules& segments, bool logsDamage,
                                void (*reportStart)(size_t samples)) {
  return {.sets = sets,
          .segments = segments,
          .mostBytes = ParameterSetCollector::mostBytes,
          .readsBehindSlices = sets.codec.hasSetsBehindSlices,
          .logsDamage = logsDamage,
          .reportStart = reportStart};
}

constexpr ScanUse silentUse(const SegmentRules& segments, size_t mostBytes) {
  return {.sets = segments.sets,
          .segments = segments,
          .mostBytes = mostBytes,
          .readsBehindSlices = false,
          .logsDamage = false,
          .reportStart = nullptr};
}

}  // namespace

constinit const ScanRules hevcScan{
    .codec = hevcNALCodec,
    .vote = {.smallestLength = 3, .checksType = false},
    .extraction = extractionUse(hevcSets, hevcSegments, true, reportHEVCStart),
    .segments = silentUse(hevcSegments, SegmentList::mostBytes),
    .plan = silentUse(hevcPlannedSegments, ParameterSetCollector::mostBytes),
    .prefix = "",
    .warnsOfSeveralDescriptions = true,
    .reportsVotes = true,
    .reportResult = reportHEVCResult,
};

constinit const ScanRules avcScan{
    .codec = avcNALCodec,
    .vote = {.smallestLength = 2, .checksType = true},
    .extraction = extractionUse(avcSets, avcSegments, false, reportAVCStart),
    .segments = silentUse(avcSegments, SegmentList::mostBytes),
    .plan = silentUse(avcPlannedSegments, ParameterSetCollector::mostBytes),
    .prefix = "AVC: ",
    .warnsOfSeveralDescriptions = false,
    .reportsVotes = false,
    .reportResult = reportAVCResult,
};

}  // namespace tarn

#include "parameters/HEVCConfigurationSegment.h"

#include "parameters/NALUnitParser.h"
#include "parameters/ParameterScan.h"
#include "parameters/VideoCodec.h"
#include "parameters/detail/ScanRules.h"

namespace tarn {

std::vector<ConfigurationSegment> detectSegments(FileHandle& file, std::span<const SampleInfo> syncSamples,
                                                 int nalLengthSize, int64_t totalSampleCount,
                                                 const ParameterSets& ofSampleEntry, const VideoCodec& codec) {
  ParameterScan scan(codec, ParameterScan::Purpose::segments, {syncSamples.begin(), syncSamples.end()});
  try {
    scan.read(file, nalLengthSize);
  } catch (const NALUnitParserError&) {
    throw SegmentList::tooMany(codec.scan.segments.segments);
  }
  return scan.segments(totalSampleCount, ParameterScan::Side::aheadOfSlices,
                       [&](const SampleInfo&) -> const ParameterSets& { return ofSampleEntry; });
}

std::vector<ConfigurationSegment> HEVCConfigurationSegmentDetector::detectSegments(
    FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize, int64_t totalSampleCount,
    const ParameterSets& ofSampleEntry) {
  return tarn::detectSegments(file, syncSamples, nalLengthSize, totalSampleCount, ofSampleEntry, VideoCodec::hevc);
}

std::vector<AVCConfigurationSegment> AVCConfigurationSegmentDetector::detectSegments(
    FileHandle& file, std::span<const SampleInfo> syncSamples, int nalLengthSize, int64_t totalSampleCount,
    const ParameterSets& ofSampleEntry) {
  return tarn::detectSegments(file, syncSamples, nalLengthSize, totalSampleCount, ofSampleEntry, VideoCodec::avc);
}

}  // namespace tarn

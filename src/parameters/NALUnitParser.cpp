#include "parameters/NALUnitParser.h"

#include <tarn/hevc.h>

#include <cstdint>
#include <string_view>

#include "parameters/ParameterScan.h"
#include "parameters/VideoCodec.h"
#include "parameters/detail/NALLengthVote.h"
#include "platform/Log.h"

namespace tarn {
namespace {

ParameterSets scanSamples(FileHandle& file, std::span<const SampleInfo> samples, int nalLengthSize,
                          const VideoCodec& codec) {
  ParameterScan scan(codec, ParameterScan::Purpose::extraction, {samples.begin(), samples.end()});
  scan.read(file, nalLengthSize);
  return scan.sets();
}

}  // namespace

NALUnitParserError::NALUnitParserError(Case kind, const std::string& description)
    : Error("NALUnitParser", -1, description), kind_(kind) {}

NALUnitParserError NALUnitParserError::noParameterSetsFound(const std::string& missing) {
  return {Case::noParameterSetsFound, "No complete parameter sets found in the video's sync samples: " + missing};
}

NALUnitParserError NALUnitParserError::tooManyParameterSets() {
  return {Case::tooManyParameterSets, "The video's sync samples hold more parameter sets than a stream can have"};
}

ExtractedParameterSets NALUnitParser::extractParameterSets(FileManager& files, const Path& fileURL) {
  return ParameterScan::ofFile(files, fileURL, VideoCodec::hevc).extract();
}

ExtractedParameterSets NALUnitParser::extractAVCParameterSets(FileManager& files, const Path& fileURL) {
  return ParameterScan::ofFile(files, fileURL, VideoCodec::avc).extract();
}

std::optional<PictureSize> NALUnitParser::parseSPSResolution(ByteView cleanedSPS) {
  if (cleanedSPS.size() <= hevcNALCodec.headerSize) return std::nullopt;
  HEVCSPSInfo info;
  if (int32_t result = hevc_parse_sps(cleanedSPS.data(), cleanedSPS.size(), &info); result != 0) {
    log("WARNING: hevc_parse_sps failed (code {}), picture size unknown", result);
    return std::nullopt;
  }
  return PictureSize{.width = info.width, .height = info.height};
}

std::optional<PictureSize> NALUnitParser::parseShownSize(ByteView cleanedSPS) {
  uint32_t width = 0;
  uint32_t height = 0;
  if (hevc_parse_sps_shown_size(cleanedSPS.data(), cleanedSPS.size(), &width, &height) != 0) return std::nullopt;
  return PictureSize{.width = width, .height = height};
}

std::optional<MP4BoxInfo> NALUnitParser::findVideoTrackStbl(FileHandle& file, const MP4BoxInfo& moov) {
  auto box = MP4BoxUtils::findTrack(file, moov, MP4TrackType::video);
  for (std::string_view type : {"mdia", "minf", "stbl"}) {
    if (!box) return std::nullopt;
    file.seek(box->contentOffset());
    box = MP4BoxUtils::findBoxInContainer(file, *box, type);
  }
  return box;
}

int NALUnitParser::detectNALLengthSize(FileHandle& file, std::span<const SampleInfo> samples) {
  return detectLengthSize(file, samples, VideoCodec::hevc.scan);
}

int NALUnitParser::detectAVCNALLengthSize(FileHandle& file, std::span<const SampleInfo> samples) {
  return detectLengthSize(file, samples, VideoCodec::avc.scan);
}

HEVCParameterSets NALUnitParser::scanSamplesForParameterSets(FileHandle& file, std::span<const SampleInfo> samples,
                                                             int nalLengthSize) {
  return scanSamples(file, samples, nalLengthSize, VideoCodec::hevc);
}

AVCParameterSets NALUnitParser::scanSamplesForAVCParameterSets(FileHandle& file, std::span<const SampleInfo> samples,
                                                               int nalLengthSize) {
  return scanSamples(file, samples, nalLengthSize, VideoCodec::avc);
}

}  // namespace tarn

#include "parameters/VideoCodec.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "parameters/NALUnitParser.h"
#include "parameters/detail/AVCSPSParser.h"
#include "parameters/detail/ScanRules.h"
#include "parameters/detail/SetRules.h"

namespace tarn {
namespace {

constexpr std::string_view encryptedTag = "encv";

std::string counted(size_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

Bytes buildHvcC(const ParameterSets& sets, int nalLengthSize) {
  return HEVCConfigurationBox(sets.vpsArray, sets.spsArray, sets.ppsArray, sets.spsRbspArray, nalLengthSize, true)
      .buildHvcCBox();
}

Bytes buildAvcC(const ParameterSets& sets, int nalLengthSize) {
  return AVCConfigurationBox(sets.spsArray, sets.ppsArray, sets.spsRbspArray, nalLengthSize).buildAvcCBox();
}

ConfigurationContents readHEVCContents(ByteView contents) {
  const HEVCDecoderConfigurationRecord record = readHvcC(contents);
  ConfigurationContents result{
      .sets = {}, .isComplete = record.hasAllParameterSets(), .nalLengthSize = record.lengthSizeMinusOne + 1};
  for (const auto& [isWhole, type, units] : record.arrays) {
    if (auto kind = hevcNALCodec.parameterSetKind(type)) {
      auto& kept = unitsOf(result.sets, *kind);
      kept.insert(kept.end(), units.begin(), units.end());
    } else if (!units.empty()) {
      const bool isSEI = type == hevcNALType::prefixSEI || type == hevcNALType::suffixSEI;
      result.others.push_back(counted(units.size(), isSEI ? "SEI message" : fmt::format("NAL unit of type {}", type)));
    }
  }
  return result;
}

ConfigurationContents readAVCContents(ByteView contents) {
  AVCDecoderConfigurationRecord record = readAvcC(contents);
  ConfigurationContents result{
      .sets = {}, .isComplete = record.hasAllParameterSets(), .nalLengthSize = record.lengthSizeMinusOne + 1};
  result.sets.spsArray = std::move(record.spsArray);
  result.sets.ppsArray = std::move(record.ppsArray);
  if (size_t count = record.spsExtensionArray.size(); count > 0) {
    result.others.push_back(counted(count, "SPS extension"));
  }
  return result;
}

}  // namespace

constinit const VideoCodec VideoCodec::hevc{
    .name = "HEVC",
    .tag = "hvc1",
    .inBandTag = "hev1",
    .configBox = "hvcC",
    .olderConfigBox = "hevC",
    .mayBeEncrypted = true,
    .hasTagRepair = false,
    .nal = hevcNALCodec,
    .scan = hevcScan,
    .buildConfigBox = buildHvcC,
    .readConfigBox = readHEVCContents,
    .shownSize = NALUnitParser::parseShownSize,
    .pictureSize = NALUnitParser::parseSPSResolution,
    .areAlikeForDecoders = nullptr,
};

constinit const VideoCodec VideoCodec::avc{
    .name = "AVC",
    .tag = "avc1",
    .inBandTag = "avc3",
    .configBox = "avcC",
    .olderConfigBox = "",
    .mayBeEncrypted = false,
    .hasTagRepair = true,
    .nal = avcNALCodec,
    .scan = avcScan,
    .buildConfigBox = buildAvcC,
    .readConfigBox = readAVCContents,
    .shownSize = AVCConfigurationBox::parseSPSResolution,
    .pictureSize = AVCConfigurationBox::parseSPSResolution,
    .areAlikeForDecoders = differInVUIAtMost,
};

bool VideoCodec::accepts(std::string_view entryTag) const {
  return entryTag == tag || entryTag == inBandTag || (mayBeEncrypted && isEncryptedVideo(entryTag));
}

const VideoCodec* codecOfTag(std::string_view tag) {
  for (const VideoCodec* codec : {&VideoCodec::hevc, &VideoCodec::avc}) {
    if (tag == codec->tag || tag == codec->inBandTag) return codec;
  }
  return nullptr;
}

const VideoCodec* codecOfConfigBox(std::string_view type) {
  for (const VideoCodec* codec : {&VideoCodec::hevc, &VideoCodec::avc}) {
    if (type == codec->configBox) return codec;
  }
  return nullptr;
}

bool isEncryptedVideo(std::string_view tag) {
  return tag == encryptedTag;
}

ParameterSets readableAmong(const ParameterSets& sets, const VideoCodec& codec) {
  ParameterSetCollector collector(codec.scan.plan.sets);
  collector.addAll(sets);
  return std::move(collector).take();
}

bool areSaid(const ParameterSets& carried, const ParameterSets& inEntry, const VideoCodec& codec) {
  if (areAmong(carried, inEntry)) return true;
  if (codec.areAlikeForDecoders == nullptr) return false;
  ParameterSets others = carried;
  std::erase_if(others.spsArray, [&](const Bytes& unit) {
    auto at = static_cast<size_t>(std::ranges::find(carried.spsArray, unit) - carried.spsArray.begin());
    return std::ranges::any_of(inEntry.spsRbspArray, [&](const Bytes& rbsp) {
      return codec.areAlikeForDecoders(carried.spsRbspArray[at], rbsp);
    });
  });
  return areAmong(others, inEntry);
}

}  // namespace tarn

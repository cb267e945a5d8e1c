#include "parameters/HEVCConfigurationBox.h"

#include <tarn/hevc.h>

#include <algorithm>
#include <array>
#include <utility>

#include "parameters/NALCodec.h"
#include "parameters/detail/ProfileTierLevel.h"
#include "parameters/detail/RBSPReading.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr size_t smallestSPS = 21;  // bytes, with header
constexpr size_t smallestArray = 3;
constexpr uint8_t mostTemporalLayers = 7;

/// The record's layout, for writing and for reading.
template <typename Archive, typename Record>
void describe(Archive& archive, Record& record) {
  archive.field(record.configurationVersion, 8);
  archive.field(record.general_profile_space, 2);
  archive.field(record.general_tier_flag, 1);
  archive.field(record.general_profile_idc, 5);
  archive.field(record.general_profile_compatibility_flags, 32);
  archive.field(record.general_constraint_indicator_flags, 48);
  archive.field(record.general_level_idc, 8);
  archive.reserved(0xF, 4);
  archive.field(record.min_spatial_segmentation_idc, 12);
  archive.reserved(0x3F, 6);
  archive.field(record.parallelismType, 2);
  archive.reserved(0x3F, 6);
  archive.field(record.chromaFormat, 2);
  archive.reserved(0x1F, 5);
  archive.field(record.bitDepthLumaMinus8, 3);
  archive.reserved(0x1F, 5);
  archive.field(record.bitDepthChromaMinus8, 3);
  archive.field(record.avgFrameRate, 16);
  archive.field(record.constantFrameRate, 2);
  archive.field(record.numTemporalLayers, 3);
  archive.field(record.temporalIdNested, 1);
  archive.field(record.lengthSizeMinusOne, 2);
  archive.list(record.arrays, 8, smallestArray, [&archive](auto& array) {
    archive.field(array.arrayCompleteness, 1);
    archive.reserved(0, 1);
    archive.field(array.nalUnitType, 6);
    archive.units(array.nalUnits, 16);
  });
}

RecordWriter write(const HEVCDecoderConfigurationRecord& record) {
  if (record.numTemporalLayers > mostTemporalLayers) {
    throw ConfigurationBoxError(fmt::format("{} temporal layers do not fit an hvcC box", record.numTemporalLayers));
  }
  RecordWriter writer;
  describe(writer, record);
  return writer;
}

}  // namespace

bool HEVCDecoderConfigurationRecord::hasAllParameterSets() const {
  return std::ranges::all_of(std::array{hevcNALType::vps, hevcNALType::sps, hevcNALType::pps}, [this](uint8_t type) {
    return std::ranges::any_of(
        arrays, [type](const Array& array) { return array.nalUnitType == type && holdsUnit(array.nalUnits); });
  });
}

HEVCDecoderConfigurationRecord readHvcC(ByteView contents) {
  HEVCDecoderConfigurationRecord record;
  RecordReader reader(contents);
  describe(reader, record);
  return record;
}

HEVCConfigurationBox::HEVCConfigurationBox(std::vector<Bytes> vpsArray, std::vector<Bytes> spsArray,
                                           std::vector<Bytes> ppsArray, const std::vector<Bytes>& spsRbspArray,
                                           int nalLengthSize, bool isCollectionComplete) {
  record_.lengthSizeMinusOne = lengthSizeField(nalLengthSize);
  log("Set lengthSizeMinusOne = {} (nalLengthSize={})", record_.lengthSizeMinusOne, nalLengthSize);
  log("Building hvcC with {} VPS, {} SPS, {} PPS", vpsArray.size(), spsArray.size(), ppsArray.size());
  log("Parameter set collection complete: {}", isCollectionComplete);
  // All three arrays are written, an empty one too.
  record_.arrays.push_back({isCollectionComplete, hevcNALType::vps, std::move(vpsArray)});
  record_.arrays.push_back({isCollectionComplete, hevcNALType::sps, std::move(spsArray)});
  record_.arrays.push_back({isCollectionComplete, hevcNALType::pps, std::move(ppsArray)});
  parseSPSConfiguration(spsRbspArray);
}

Bytes HEVCConfigurationBox::buildHvcCBox() const {
  return write(record_).box("hvcC");
}

Bytes HEVCConfigurationBox::buildDecoderConfigRecord() const {
  return write(record_).bytes();
}

void HEVCConfigurationBox::parseSPSConfiguration(const std::vector<Bytes>& spsRbspArray) {
  if (spsRbspArray.empty() || spsRbspArray.front().size() < smallestSPS) {
    log("No SPS RBSP or SPS too small, using defaults");
    return;
  }
  const Bytes& sps = spsRbspArray.front();
  HEVCSPSInfo info;
  if (int32_t result = hevc_parse_sps(sps.data(), sps.size(), &info); result != 0) {
    log("WARNING: hevc_parse_sps failed (code {}), using the fallback parser", result);
    parseSPSConfigurationFallback(sps);
    return;
  }
  record_.general_profile_idc = info.generalProfileIdc;
  record_.general_tier_flag = info.generalTierFlag;
  record_.general_level_idc = info.generalLevelIdc;
  record_.chromaFormat = info.chromaFormatIdc;
  record_.bitDepthLumaMinus8 = static_cast<uint8_t>(info.bitDepthLuma - 8);
  record_.bitDepthChromaMinus8 = static_cast<uint8_t>(info.bitDepthChroma - 8);
  record_.temporalIdNested = info.temporalIdNesting;
  record_.numTemporalLayers = info.maxSubLayers;
  log("SPS: max_sub_layers={}, temporal_id_nested={}", info.maxSubLayers, info.temporalIdNesting);
  log("Parsed SPS PTL: profile_space=0, tier={}, profile={}, level={}", info.generalTierFlag, info.generalProfileIdc,
      info.generalLevelIdc);
  log("Parsed SPS body: chroma={}, luma_depth={}, chroma_depth={}, resolution={}x{}", info.chromaFormatIdc,
      info.bitDepthLuma, info.bitDepthChroma, info.width, info.height);
}

/// Takes what an SPS states without judging it, so that a set which the strict reader refuses still gives a record.
void HEVCConfigurationBox::parseSPSConfigurationFallback(ByteView sps) {
  BitReader bits(sps.subspan(hevcNALCodec.headerSize));
  bits.readBits(4);  // sps_video_parameter_set_id
  auto readByte = [&bits](int count) { return static_cast<uint8_t>(bits.readBits(count)); };
  uint8_t subLayers = readByte(3);
  record_.temporalIdNested = readByte(1);
  record_.general_profile_space = readByte(2);
  record_.general_tier_flag = readByte(1);
  record_.general_profile_idc = readByte(5);
  record_.general_profile_compatibility_flags = bits.readBits(32);
  uint64_t constraintsHigh = bits.readBits(16);
  record_.general_constraint_indicator_flags = constraintsHigh << 32 | bits.readBits(32);
  record_.general_level_idc = readByte(8);
  skipSubLayers(
      subLayers, [&] { return bits.readBits(1); }, [&](size_t count) { skipBits(bits, count); });
  record_.numTemporalLayers = std::min<uint8_t>(static_cast<uint8_t>(subLayers + 1), mostTemporalLayers);
  if (bits.atEnd()) return;

  auto atMost = [](uint32_t value, uint32_t limit) { return static_cast<uint8_t>(std::min(value, limit)); };
  readUE(bits);  // sps_seq_parameter_set_id
  uint32_t chromaFormat = readUE(bits);
  record_.chromaFormat = atMost(chromaFormat, 3);
  if (chromaFormat == 3) bits.readBits(1);  // separate_colour_plane_flag
  readUE(bits);                             // width
  readUE(bits);                             // height
  if (bits.readBits(1) != 0) {
    for (int offset = 0; offset < 4; ++offset) readUE(bits);
  }
  record_.bitDepthLumaMinus8 = atMost(readUE(bits), 7);
  record_.bitDepthChromaMinus8 = atMost(readUE(bits), 7);
}

}  // namespace tarn

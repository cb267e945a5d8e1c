#include "parameters/AVCConfigurationBox.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "parameters/detail/AVCSPSParser.h"
#include "parameters/detail/RBSPReading.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr size_t smallestSPS = 4;           // bytes for profile, compatibility and level
constexpr size_t smallestSPSWithSize = 10;  // bytes
constexpr int spsCountWidth = 5;
constexpr int ppsCountWidth = 8;
constexpr size_t mostSPS = (1 << spsCountWidth) - 1;
constexpr size_t mostPPS = (1 << ppsCountWidth) - 1;
constexpr size_t extensionSize = 4;
constexpr int profileAndLevelBits = 24;

bool isOneOf(uint8_t profile, std::initializer_list<uint8_t> profiles) {
  return std::ranges::find(profiles, profile) != profiles.end();
}

/// Those and the withdrawn High 4:4:4 profile.
bool isHighProfile(uint8_t profile) {
  return statesChromaFormat(profile) || profile == 144;
}

/// Profiles whose record states them (ISO/IEC 14496-15 5.3.3.1.2).
bool hasExtension(uint8_t profile) {
  return isOneOf(profile, {100, 110, 122, 144});
}

std::string_view profileName(uint8_t profile) {
  switch (profile) {
    case 66:
      return "Baseline";
    case 77:
      return "Main";
    case 88:
      return "Extended";
    case 100:
      return "High";
    case 110:
      return "High 10";
    case 122:
      return "High 4:2:2";
    case 244:
      return "High 4:4:4 Predictive";
    default:
      return "Unknown";
  }
}

/// The record's layout, for writing and for reading.
template <typename Archive, typename Record>
void describe(Archive& archive, Record& record) {
  archive.field(record.configurationVersion, 8);
  archive.field(record.profileIdc, 8);
  archive.field(record.profileCompatibility, 8);
  archive.field(record.levelIdc, 8);
  archive.reserved(0x3F, 6);
  archive.field(record.lengthSizeMinusOne, 2);
  archive.reserved(0x7, 3);
  archive.units(record.spsArray, spsCountWidth);
  archive.units(record.ppsArray, ppsCountWidth);
  if (!hasExtension(record.profileIdc) || !archive.has(extensionSize)) return;
  archive.optional([&archive, &record] {
    archive.reserved(0x3F, 6);
    archive.field(record.chromaFormatIdc, 2);
    archive.reserved(0x1F, 5);
    archive.field(record.bitDepthLumaMinus8, 3);
    archive.reserved(0x1F, 5);
    archive.field(record.bitDepthChromaMinus8, 3);
    archive.units(record.spsExtensionArray, 8);
  });
}

}  // namespace

bool AVCDecoderConfigurationRecord::hasAllParameterSets() const {
  return holdsUnit(spsArray) && holdsUnit(ppsArray);
}

AVCDecoderConfigurationRecord readAvcC(ByteView contents) {
  AVCDecoderConfigurationRecord record;
  RecordReader reader(contents);
  describe(reader, record);
  return record;
}

AVCConfigurationBox::AVCConfigurationBox(std::vector<Bytes> spsArray, std::vector<Bytes> ppsArray,
                                         const std::vector<Bytes>& spsRbspArray, int nalLengthSize) {
  record_.lengthSizeMinusOne = lengthSizeField(nalLengthSize);
  log("AVC: Set lengthSizeMinusOne = {} (nalLengthSize={})", record_.lengthSizeMinusOne, nalLengthSize);
  log("Building avcC with {} SPS, {} PPS", spsArray.size(), ppsArray.size());
  spsArray.resize(std::min(spsArray.size(), mostSPS));
  ppsArray.resize(std::min(ppsArray.size(), mostPPS));
  record_.spsArray = std::move(spsArray);
  record_.ppsArray = std::move(ppsArray);
  parseSPSConfiguration(spsRbspArray);
}

Bytes AVCConfigurationBox::buildAvcCBox() const {
  return write().box("avcC");
}

Bytes AVCConfigurationBox::buildDecoderConfigRecord() const {
  return write().bytes();
}

RecordWriter AVCConfigurationBox::write() const {
  RecordWriter writer;
  describe(writer, record_);
  if (hasExtension(record_.profileIdc)) {
    log("AVC: Added High Profile extensions (4 bytes): chroma={}, luma_depth={}, chroma_depth={}",
        record_.chromaFormatIdc, record_.bitDepthLumaMinus8 + 8, record_.bitDepthChromaMinus8 + 8);
  }
  return writer;
}

void AVCConfigurationBox::parseSPSConfiguration(const std::vector<Bytes>& spsRbspArray) {
  if (spsRbspArray.empty() || spsRbspArray.front().size() < smallestSPS) {
    log("AVC: No SPS RBSP or SPS too small, using defaults");
    return;
  }
  const Bytes& sps = spsRbspArray.front();
  record_.profileIdc = sps[0];
  record_.profileCompatibility = sps[1];
  record_.levelIdc = sps[2];
  log("AVC SPS: profile_idc={}, profile_compatibility=0x{:02x}, level_idc={}", record_.profileIdc,
      record_.profileCompatibility, record_.levelIdc);
  log("AVC: Profile={} ({}), Level={}.{}", profileName(record_.profileIdc), record_.profileIdc, record_.levelIdc / 10,
      record_.levelIdc % 10);
  if (isHighProfile(record_.profileIdc)) parseHighProfileFields(sps);
}

void AVCConfigurationBox::parseHighProfileFields(ByteView spsRbsp) {
  static constexpr std::array<std::string_view, 4> chromaNames{"Monochrome", "4:2:0", "4:2:2", "4:4:4"};
  auto readAtMost = [](BitReader& bits, uint32_t limit) { return static_cast<uint8_t>(std::min(readUE(bits), limit)); };
  BitReader bits(spsRbsp);
  skipBits(bits, profileAndLevelBits);
  readUE(bits);  // seq_parameter_set_id
  record_.chromaFormatIdc = readAtMost(bits, 3);
  if (record_.chromaFormatIdc == 3) bits.readBits(1);  // separate_colour_plane_flag
  record_.bitDepthLumaMinus8 = readAtMost(bits, 6);
  record_.bitDepthChromaMinus8 = readAtMost(bits, 6);
  log("AVC High Profile: chroma={} ({}), luma_depth={}-bit, chroma_depth={}-bit",
      chromaNames.at(record_.chromaFormatIdc), record_.chromaFormatIdc, record_.bitDepthLumaMinus8 + 8,
      record_.bitDepthChromaMinus8 + 8);
}

std::optional<PictureSize> AVCConfigurationBox::parseSPSResolution(ByteView spsRbsp) {
  if (spsRbsp.size() < smallestSPSWithSize) return std::nullopt;
  return readAVCSPS(spsRbsp).size;
}

}  // namespace tarn

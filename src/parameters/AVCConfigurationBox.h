#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "parameters/PictureSize.h"
#include "parameters/detail/ConfigurationRecord.h"
#include "platform/Bytes.h"

namespace tarn {

/// AVCDecoderConfigurationRecord, the contents of an `avcC` box (ISO/IEC 14496-15 5.3.3). The values before anything is
/// read are those of a Baseline profile, level 3, 8-bit 4:2:0 stream.
struct AVCDecoderConfigurationRecord {
  uint8_t configurationVersion = 1;
  uint8_t profileIdc = 66;
  uint8_t profileCompatibility = 0;
  uint8_t levelIdc = 30;  ///< 10 times the level
  uint8_t lengthSizeMinusOne = 3;
  std::vector<Bytes> spsArray;  ///< as stored: header and emulation prevention bytes included
  std::vector<Bytes> ppsArray;
  uint8_t chromaFormatIdc = 1;  ///< this and the rest stand in the box for the profiles 100, 110, 122 and 144 alone
  uint8_t bitDepthLumaMinus8 = 0;
  uint8_t bitDepthChromaMinus8 = 0;
  std::vector<Bytes> spsExtensionArray;

  /// True if there is at least one SPS and one PPS that is not empty.
  bool hasAllParameterSets() const;
};

/// Reads the contents of an `avcC` box, header not included. Reserved bits, the version and bytes after the record are
/// not judged; the last four fields may be missing or damaged. Throws ConfigurationBoxError when the contents end too
/// early.
AVCDecoderConfigurationRecord readAvcC(ByteView contents);

/// Builds an `avcC` box from parameter sets of the bitstream. Profile, level, chroma format and bit depths come from
/// the first SPS; a missing one degrades to the defaults.
class AVCConfigurationBox {
 public:
  /// The arrays hold NAL units in stored form; each element of `spsRbspArray` is an SPS without its header byte and
  /// without emulation prevention. `nalLengthSize` is 1, 2 or 4 bytes; any other throws ConfigurationBoxError. The
  /// first 31 SPS and the first 255 PPS are kept.
  AVCConfigurationBox(std::vector<Bytes> spsArray, std::vector<Bytes> ppsArray, const std::vector<Bytes>& spsRbspArray,
                      int nalLengthSize);

  /// The whole box, and its contents alone. Both throw ConfigurationBoxError for a unit of 65,536 bytes or more.
  Bytes buildAvcCBox() const;
  Bytes buildDecoderConfigRecord() const;

  const AVCDecoderConfigurationRecord& record() const { return record_; }

  /// The cropped picture size that an SPS states (ITU-T H.264 7.3.2.1.1, 7.4.2.1.1). `spsRbsp` begins with profile_idc.
  /// Returns nothing for fewer than 10 bytes; no other test is made, so a damaged set gives a size without meaning.
  static std::optional<PictureSize> parseSPSResolution(ByteView spsRbsp);

 private:
  RecordWriter write() const;
  void parseSPSConfiguration(const std::vector<Bytes>& spsRbspArray);
  void parseHighProfileFields(ByteView spsRbsp);

  AVCDecoderConfigurationRecord record_;
};

}  // namespace tarn

#pragma once

#include <cstdint>
#include <vector>

#include "parameters/detail/ConfigurationRecord.h"
#include "platform/Bytes.h"

namespace tarn {

/// HEVCDecoderConfigurationRecord, the contents of an `hvcC` box, under the standard's names (ISO/IEC 14496-15 8.3.3).
/// The values before anything is read are those of a Main profile, level 3.1, 8-bit 4:2:0 stream.
struct HEVCDecoderConfigurationRecord {
  struct Array {
    bool arrayCompleteness = false;
    uint8_t nalUnitType = 0;
    std::vector<Bytes> nalUnits;  ///< as stored: header and emulation prevention bytes included
  };

  uint8_t configurationVersion = 1;
  uint8_t general_profile_space = 0;
  uint8_t general_tier_flag = 0;
  uint8_t general_profile_idc = 1;
  uint32_t general_profile_compatibility_flags = 0;
  uint64_t general_constraint_indicator_flags = 0;  ///< low 48 bits
  uint8_t general_level_idc = 93;                   ///< 30 times the level
  uint16_t min_spatial_segmentation_idc = 0;
  uint8_t parallelismType = 0;
  uint8_t chromaFormat = 1;
  uint8_t bitDepthLumaMinus8 = 0;
  uint8_t bitDepthChromaMinus8 = 0;
  uint16_t avgFrameRate = 0;  ///< frames in 256 seconds
  uint8_t constantFrameRate = 0;
  uint8_t numTemporalLayers = 1;
  uint8_t temporalIdNested = 1;
  uint8_t lengthSizeMinusOne = 3;
  std::vector<Array> arrays;

  /// True if there is at least one VPS, one SPS and one PPS that is not empty.
  bool hasAllParameterSets() const;
};

/// Reads the contents of an `hvcC` box, header not included. Reserved bits, the version and bytes after the last array
/// are not judged. Throws ConfigurationBoxError when the contents end too early.
HEVCDecoderConfigurationRecord readHvcC(ByteView contents);

/// Builds an `hvcC` box from parameter sets of the bitstream. Profile, level, chroma format and bit depths come from
/// the first SPS; one that cannot be read degrades to a second, forgiving reader, and a missing one to the defaults.
class HEVCConfigurationBox {
 public:
  /// The arrays hold NAL units in stored form; each element of `spsRbspArray` is an SPS with its 2-byte header and
  /// without emulation prevention. `nalLengthSize` is 1, 2 or 4 bytes; any other throws ConfigurationBoxError.
  /// `isCollectionComplete` becomes array_completeness.
  HEVCConfigurationBox(std::vector<Bytes> vpsArray, std::vector<Bytes> spsArray, std::vector<Bytes> ppsArray,
                       const std::vector<Bytes>& spsRbspArray, int nalLengthSize, bool isCollectionComplete);

  /// The whole box, and its contents alone. Both throw ConfigurationBoxError if a count, a length or the number of
  /// temporal layers does not fit its field. A bit depth of 16 is written with the low three bits of its difference
  /// to 8, the field's width.
  Bytes buildHvcCBox() const;
  Bytes buildDecoderConfigRecord() const;

  const HEVCDecoderConfigurationRecord& record() const { return record_; }

 private:
  void parseSPSConfiguration(const std::vector<Bytes>& spsRbspArray);
  void parseSPSConfigurationFallback(ByteView sps);

  HEVCDecoderConfigurationRecord record_;
};

}  // namespace tarn

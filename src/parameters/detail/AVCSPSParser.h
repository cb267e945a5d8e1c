#pragma once

#include <cstddef>
#include <cstdint>

#include "parameters/PictureSize.h"
#include "platform/Bytes.h"

namespace tarn {

/// What an AVC sequence parameter set says about its stream (ITU-T H.264 7.3.2.1.1), as a damaged one may say it.
struct AVCSPSInfo {
  uint32_t id = 0;
  uint32_t chromaFormatIdc = 1;
  bool hasSeparatePlanes = false;
  unsigned frameNumberBits = 4;  ///< of frame_num in a slice header
  uint32_t orderType = 0;        ///< pic_order_cnt_type
  unsigned orderBits = 4;        ///< of pic_order_cnt_lsb; for type 0 alone
  bool framesOnly = true;        ///< frame_mbs_only_flag
  uint32_t macroblocks = 0;      ///< of a frame; 0 if the size is not allowed
  PictureSize size;              ///< cropped, in samples; the unit of a crop offset is that of 7.4.2.1.1
  size_t bitsAheadOfVUI = 0;     ///< this many bits say everything but vui_parameters_present_flag and what follows it
  bool isPlausible = false;      ///< it is whole, and each value is one that the standard allows
};

/// Reads a set that begins with profile_idc, without emulation prevention, as far as the cropping. Bits that are
/// missing count as 0.
AVCSPSInfo readAVCSPS(ByteView spsRbsp);

/// True if two such sets differ in their usability information (VUI) at most.
bool differInVUIAtMost(ByteView spsRbsp, ByteView otherRbsp);

/// Profiles whose set states chroma format and bit depths.
bool statesChromaFormat(uint8_t profile);

}  // namespace tarn

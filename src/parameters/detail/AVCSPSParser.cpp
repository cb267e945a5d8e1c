#include "parameters/detail/AVCSPSParser.h"

#include <algorithm>
#include <array>

#include "parameters/detail/RBSPReading.h"

namespace tarn {
namespace {

constexpr int profileAndLevelBits = 24;
constexpr uint32_t largestID = 31;
constexpr uint32_t largestDepthMinus8 = 6;
constexpr uint32_t largestLog2MaxMinus4 = 12;
constexpr int64_t largestDimension = 16384;

void skipScalingList(BitReader& bits, int size) {
  int64_t lastScale = 8;
  int64_t nextScale = 8;
  for (int i = 0; i < size && nextScale != 0; ++i) {
    nextScale = (lastScale + bits.readSE() + 256) % 256;
    if (nextScale != 0) lastScale = nextScale;
  }
}

/// Reads one set from front to back; each step says whether its values are allowed.
class SPSReader {
 public:
  explicit SPSReader(ByteView rbsp) : rbsp_(rbsp), bits_(rbsp) {}

  AVCSPSInfo read() {
    skipBits(bits_, profileAndLevelBits);
    info_.id = readUE(bits_);
    bool isAllowed = info_.id <= largestID;
    if (!rbsp_.empty() && statesChromaFormat(rbsp_[0])) isAllowed &= readChromaFormatAndScaling();
    isAllowed &= readBitCount(info_.frameNumberBits);  // log2_max_frame_num_minus4
    isAllowed &= readPictureOrderCount();
    isAllowed &= readSize();
    info_.bitsAheadOfVUI = bits_.bytePosition * 8 + static_cast<size_t>(bits_.bitPosition);
    info_.isPlausible = isAllowed && !bits_.atEnd();
    return info_;
  }

 private:
  bool readChromaFormatAndScaling() {
    info_.chromaFormatIdc = readUE(bits_);
    bool is444 = info_.chromaFormatIdc == 3;
    if (is444) info_.hasSeparatePlanes = bits_.readBits(1) != 0;
    uint32_t lumaDepth = readUE(bits_);
    uint32_t chromaDepth = readUE(bits_);
    bits_.readBits(1);  // qpprime_y_zero_transform_bypass_flag
    bool hasLists = bits_.readBits(1) != 0;
    int lists = !hasLists ? 0 : is444 ? 12 : 8;
    for (int list = 0; list < lists; ++list) {
      if (bits_.readBits(1) != 0) skipScalingList(bits_, list < 6 ? 16 : 64);
    }
    return info_.chromaFormatIdc <= 3 && std::max(lumaDepth, chromaDepth) <= largestDepthMinus8;
  }

  bool readBitCount(unsigned& count) {
    const uint32_t above4 = readUE(bits_);
    count = std::min(above4, largestLog2MaxMinus4) + 4;
    return above4 <= largestLog2MaxMinus4;
  }

  bool readPictureOrderCount() {
    const uint32_t type = info_.orderType = readUE(bits_);
    if (type == 0) return readBitCount(info_.orderBits);  // log2_max_pic_order_cnt_lsb_minus4
    if (type != 1) return type == 2;
    bits_.readBits(1);  // delta_pic_order_always_zero_flag
    readUE(bits_);      // offset_for_non_ref_pic; se(v) is as long as ue(v)
    readUE(bits_);      // offset_for_top_to_bottom_field
    uint32_t cycle = readUE(bits_);
    for (uint32_t i = 0; i < cycle && !bits_.atEnd(); ++i) bits_.readSE();
    return cycle <= 255;
  }

  bool readSize() {
    readUE(bits_);      // max_num_ref_frames
    bits_.readBits(1);  // gaps_in_frame_num_value_allowed_flag
    int64_t widthInMbs = int64_t{readUE(bits_)} + 1;
    int64_t heightInMapUnits = int64_t{readUE(bits_)} + 1;
    const bool framesOnly = info_.framesOnly = bits_.readBits(1) != 0;
    if (!framesOnly) bits_.readBits(1);  // mb_adaptive_frame_field_flag
    bits_.readBits(1);                   // direct_8x8_inference_flag
    int64_t horizontalCrop = 0;
    int64_t verticalCrop = 0;
    if (bits_.readBits(1) != 0) {
      horizontalCrop = int64_t{readUE(bits_)} + readUE(bits_);
      verticalCrop = int64_t{readUE(bits_)} + readUE(bits_);
    }
    // Colour planes that are coded apart count as pictures without chroma.
    uint32_t chroma = info_.hasSeparatePlanes ? 0 : info_.chromaFormatIdc;
    int64_t chromaWidth = chroma == 1 || chroma == 2 ? 2 : 1;
    int64_t chromaHeight = chroma == 1 ? 2 : 1;
    int64_t fields = framesOnly ? 1 : 2;
    info_.size = {.width = widthInMbs * 16 - chromaWidth * horizontalCrop,
                  .height = fields * (heightInMapUnits * 16 - chromaHeight * verticalCrop)};
    auto isAllowed = [](int64_t length) { return length >= 1 && length <= largestDimension; };
    if (!isAllowed(info_.size.width) || !isAllowed(info_.size.height)) return false;
    constexpr int64_t mostInLine = 1 << 14;  // cropping may hide more than is allowed to be shown
    if (std::max(widthInMbs, heightInMapUnits) > mostInLine) return false;
    info_.macroblocks = static_cast<uint32_t>(widthInMbs * heightInMapUnits * fields);
    return true;
  }

  ByteView rbsp_;
  BitReader bits_;
  AVCSPSInfo info_;
};

}  // namespace

AVCSPSInfo readAVCSPS(ByteView spsRbsp) {
  return SPSReader(spsRbsp).read();
}

bool differInVUIAtMost(ByteView spsRbsp, ByteView otherRbsp) {
  AVCSPSInfo info = readAVCSPS(spsRbsp);
  AVCSPSInfo other = readAVCSPS(otherRbsp);
  if (!info.isPlausible || !other.isPlausible || info.bitsAheadOfVUI != other.bitsAheadOfVUI) return false;
  BitReader bits(spsRbsp);
  BitReader otherBits(otherRbsp);
  for (size_t i = 0; i < info.bitsAheadOfVUI; ++i) {
    if (bits.readBits(1) != otherBits.readBits(1)) return false;
  }
  return true;
}

bool statesChromaFormat(uint8_t profile) {
  constexpr std::array<uint8_t, 13> profiles{44, 83, 86, 100, 110, 118, 122, 128, 134, 135, 138, 139, 244};
  return std::ranges::find(profiles, profile) != profiles.end();
}

}  // namespace tarn

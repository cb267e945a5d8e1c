#include <tarn/hevc.h>

#include <algorithm>
#include <optional>

#include "parameters/PictureSize.h"
#include "parameters/detail/ProfileTierLevel.h"

namespace {

constexpr size_t nalHeaderSize = 2;
constexpr size_t generalProfileBits = 88;  // profile space to the last constraint bit
constexpr uint32_t largestDimension = 16384;

/// The bits after the NAL header. Reading never leaves them.
class SPSBits {
 public:
  SPSBits(const uint8_t* data, size_t size) : bytes_(data + nalHeaderSize), count_((size - nalHeaderSize) * 8) {}

  size_t remaining() const { return count_ - position_; }

  /// u(n), n up to 32; 0 without advancing when fewer bits remain.
  uint32_t read(unsigned count) {
    if (count > remaining()) return 0;
    uint32_t value = 0;
    for (unsigned i = 0; i < count; ++i, ++position_) {
      value = value << 1 | (bytes_[position_ / 8] >> (7 - position_ % 8) & 1U);
    }
    return value;
  }

  uint8_t readByte(unsigned count) { return static_cast<uint8_t>(read(count)); }

  void skip(size_t count) { position_ += std::min(count, remaining()); }

  /// ue(v); 0 for 32 leading zero bits.
  uint32_t readUE() {
    unsigned zeros = 0;
    while (remaining() > 0 && read(1) == 0) {
      if (++zeros == 32) return 0;
    }
    return read(zeros) + (uint32_t{1} << zeros) - 1;
  }

 private:
  const uint8_t* bytes_;
  size_t count_;
  size_t position_ = 0;
};

bool readProfileTierLevel(SPSBits& bits, HEVCSPSInfo& info) {
  if (bits.remaining() < generalProfileBits) return false;
  bits.skip(2);  // general_profile_space
  info.generalTierFlag = bits.readByte(1);
  info.generalProfileIdc = bits.readByte(5);
  for (uint8_t profile = 0; profile < 32; ++profile) {
    bool compatible = bits.read(1) != 0;
    if (compatible && info.generalProfileIdc == 0) info.generalProfileIdc = profile;
  }
  bits.skip(48);  // source flags and constraint flags; how they are divided depends on the profile, their sum does not
  if (bits.remaining() < 8) return false;
  info.generalLevelIdc = bits.readByte(8);
  tarn::skipSubLayers(
      info.maxSubLayers - 1U, [&] { return bits.read(1); }, [&](size_t count) { bits.skip(count); });
  return true;
}

bool readChromaFormat(SPSBits& bits, HEVCSPSInfo& info) {
  uint32_t chromaFormat = bits.readUE();
  if (chromaFormat > 3) return false;
  bool separatePlanes = chromaFormat == 3 && bits.read(1) != 0;
  info.chromaFormatIdc = separatePlanes ? uint8_t{0} : static_cast<uint8_t>(chromaFormat);
  return true;
}

/// Reads the window too, and says how large it is.
bool readPictureSize(SPSBits& bits, HEVCSPSInfo& info, tarn::PictureSize& shown) {
  auto allowed = [](uint32_t dimension) { return dimension >= 1 && dimension <= largestDimension; };
  info.width = bits.readUE();
  info.height = bits.readUE();
  if (!allowed(info.width) || !allowed(info.height)) return false;
  shown = {.width = info.width, .height = info.height};
  if (bits.read(1) != 0) {  // conformance_window_flag
    int64_t chromaWidth = info.chromaFormatIdc == 1 || info.chromaFormatIdc == 2 ? 2 : 1;
    int64_t chromaHeight = info.chromaFormatIdc == 1 ? 2 : 1;
    for (int side = 0; side < 2; ++side) shown.width -= chromaWidth * bits.readUE();
    for (int side = 0; side < 2; ++side) shown.height -= chromaHeight * bits.readUE();
  }
  return true;
}

std::optional<uint8_t> readBitDepth(SPSBits& bits) {
  uint32_t above8 = bits.readUE();
  if (above8 > 8) return std::nullopt;
  return static_cast<uint8_t>(above8 + 8);
}

int32_t readSPS(const uint8_t* data, size_t size, HEVCSPSInfo* info, tarn::PictureSize& shown) {
  if (data == nullptr || info == nullptr || size <= nalHeaderSize) return -1;
  *info = HEVCSPSInfo{};
  SPSBits bits(data, size);
  bits.skip(4);  // sps_video_parameter_set_id
  info->maxSubLayers = static_cast<uint8_t>(bits.read(3) + 1);
  info->temporalIdNesting = bits.readByte(1);
  if (!readProfileTierLevel(bits, *info)) return -1;
  bits.readUE();  // sps_seq_parameter_set_id
  if (!readChromaFormat(bits, *info) || !readPictureSize(bits, *info, shown)) return -1;
  auto luma = readBitDepth(bits);
  if (!luma) return -1;
  auto chroma = readBitDepth(bits);
  if (!chroma) return -1;
  info->bitDepthLuma = *luma;
  info->bitDepthChroma = *chroma;
  return 0;
}

}  // namespace

int32_t hevc_parse_sps(const uint8_t* data, size_t size, HEVCSPSInfo* info) {
  tarn::PictureSize shown;
  return readSPS(data, size, info, shown);
}

int32_t hevc_parse_sps_shown_size(const uint8_t* data, size_t size, uint32_t* width, uint32_t* height) {
  HEVCSPSInfo info;
  tarn::PictureSize shown;
  if (width == nullptr || height == nullptr || readSPS(data, size, &info, shown) != 0) return -1;
  if (shown.width < 1 || shown.height < 1) return -1;
  *width = static_cast<uint32_t>(shown.width);
  *height = static_cast<uint32_t>(shown.height);
  return 0;
}

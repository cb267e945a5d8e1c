#include "parameters/NALCodec.h"

#include "parameters/detail/ProfileTierLevel.h"
#include "parameters/detail/RBSPReading.h"

namespace tarn {

uint32_t parseHEVCParameterSetID(ParameterSetKind kind, ByteView payload) {
  BitReader bits(payload);
  switch (kind) {
    case ParameterSetKind::vps:
      return bits.readBits(4);
    case ParameterSetKind::sps: {
      bits.readBits(4);  // sps_video_parameter_set_id
      uint32_t subLayers = bits.readBits(3);
      skipBits(bits, 1 + 96);  // sps_temporal_id_nesting_flag, general profile, tier and level
      skipSubLayers(
          subLayers, [&] { return bits.readBits(1); }, [&](size_t count) { skipBits(bits, count); });
      return readUE(bits);
    }
    default:
      return readUE(bits);
  }
}

uint32_t parseAVCParameterSetID(ParameterSetKind kind, ByteView payload) {
  BitReader bits(payload);
  if (kind == ParameterSetKind::sps) skipBits(bits, 24);  // profile, constraints, level
  return readUE(bits);
}

}  // namespace tarn

#pragma once

#include <map>
#include <optional>

#include "parameters/PictureReader.h"
#include "parameters/detail/OrderCount.h"

namespace tarn {

/// What parameter sets of HEVC say of slice headers (ITU-T H.265 7.3.2.2, 7.3.2.3).
struct HEVCSliceRules {
  unsigned addressBits = 0;  ///< of slice_segment_address
  uint32_t blocks = 0;       ///< coding tree blocks of a picture
  unsigned orderBits = 0;
  bool hasSeparatePlanes = false;
  bool mayDepend = false;  ///< dependent_slice_segments_enabled_flag
  bool hasOutputFlag = false;
  unsigned extraBits = 0;  ///< num_extra_slice_header_bits
};

class HEVCPictureReader : public PictureReader {
 public:
  explicit HEVCPictureReader(const ParameterSets& sets);

  std::optional<StreamUnit> read(ByteView front) const override;
  std::optional<PictureOrder> order(const StreamUnit& firstSlice) override;

 private:
  std::map<uint32_t, HEVCSliceRules> rules_;  ///< by the identifier of the picture parameter set
  unsigned orderBits_ = 0;

  OrderCount count_;
  int64_t sequence_ = 0;
};

}  // namespace tarn

#pragma once

#include <map>
#include <optional>

#include "parameters/PictureReader.h"
#include "parameters/detail/AVCSPSParser.h"
#include "parameters/detail/OrderCount.h"

namespace tarn {

/// What a picture parameter set of AVC says of slice headers (ITU-T H.264 7.3.2.2).
struct AVCPPSInfo {
  uint32_t id = 0;
  uint32_t sps = 0;
  bool usesCABAC = false;
  bool hasDeltaOfBottom = false;
  uint32_t activeReferences[2] = {1, 1};
  bool weighsP = false;
  bool weighsB = false;  ///< weighted_bipred_idc is 1
  bool hasDeblocking = false;
  bool hasRedundantPictures = false;
};

class AVCPictureReader : public PictureReader {
 public:
  explicit AVCPictureReader(const ParameterSets& sets);

  std::optional<StreamUnit> read(ByteView front) const override;
  std::optional<PictureOrder> order(const StreamUnit& firstSlice) override;

 private:
  bool isSecondField(const StreamUnit& slice) const;

  std::map<uint32_t, AVCSPSInfo> sps_;
  std::map<uint32_t, AVCPPSInfo> pps_;
  uint32_t orderType_ = 0;
  unsigned orderBits_ = 0;

  OrderCount count_;
  int64_t sequence_ = 0;
  int64_t pictures_ = 0;
  std::optional<StreamUnit> openField_;  ///< a first field whose second one may follow
};

}  // namespace tarn

#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "parameters/ParameterSets.h"
#include "parameters/VideoCodec.h"
#include "platform/Bytes.h"

namespace tarn {

/// What a NAL unit is to the picture that it belongs to, and what the front of a slice says of that picture (slice
/// header, ITU-T H.264 7.3.3, ITU-T H.265 7.3.6.1).
struct StreamUnit {
  enum class Role {
    ahead,   ///< comes before the slices of its picture: parameter sets, SEI, a delimiter
    slice,   ///< holds a part of the picture
    behind,  ///< comes after them
  };
  Role role = Role::slice;

  // The rest is told of slices only.
  bool isFirst = false;      ///< of its picture, or of the second field of one
  bool isSync = false;       ///< decoding may begin here: IDR of AVC, IRAP of HEVC
  bool startsOrder = false;  ///< the order counts anew: what came before is shown before
  bool isReference = false;  ///< others may be predicted from it; in HEVC, it counts as the previous one for the order
  bool isField = false;
  bool isBottom = false;      ///< the bottom field
  bool resetsOrder = false;   ///< the order counts anew after it (memory_management_control_operation 5)
  uint32_t frameNumber = 0;   ///< frame_num
  uint32_t orderLSB = 0;      ///< pic_order_cnt_lsb
  int32_t deltaOfBottom = 0;  ///< delta_pic_order_cnt_bottom
};

/// Where a picture is shown: sequence by sequence, in each by the count.
struct PictureOrder {
  int64_t sequence = 0;
  int64_t count = 0;

  auto operator<=>(const PictureOrder&) const = default;
};

/// Reads the units of a stream under the parameter sets of its sample entry. Serves one stream and one thread.
class PictureReader {
 public:
  virtual ~PictureReader() = default;

  /// The most bytes at the front of a unit that it looks at.
  static constexpr size_t frontSize = 1024;

  /// What a unit is, from its front: all of it, or `frontSize` bytes. Returns nothing if no encoder writes such a unit
  /// under these sets: a type that is reserved, or a slice whose header names another set or has a value that the
  /// standard rules out.
  virtual std::optional<StreamUnit> read(ByteView front) const = 0;

  /// Takes the first slices of the pictures, in decode order. Returns nothing for the second field of a picture.
  virtual std::optional<PictureOrder> order(const StreamUnit& firstSlice) = 0;

  /// For the sets of a sample entry. Throws Error if they cannot be read, or number the pictures in a way that is not
  /// read (pic_order_cnt_type 1).
  static std::unique_ptr<PictureReader> make(const VideoCodec& codec, const ParameterSets& sets);
};

}  // namespace tarn

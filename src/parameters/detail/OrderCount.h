#pragma once

#include <cstdint>

namespace tarn {

/// The count of which a stream tells the lower bits (ITU-T H.264 8.2.1.1, ITU-T H.265 8.3.1).
class OrderCount {
 public:
  void restart(uint32_t lsb = 0) {
    msb_ = 0;
    lsb_ = lsb;
  }

  /// The count whose lowest `bits` are these: the one nearest to the previous picture's.
  int64_t next(uint32_t lsb, unsigned bits) const {
    const int64_t range = int64_t{1} << bits;
    const int64_t step = int64_t{lsb} - lsb_;
    const int64_t msb = step < 0 && -step >= range / 2 ? msb_ + range : step > range / 2 ? msb_ - range : msb_;
    return msb + lsb;
  }

  /// The picture of this count becomes the previous one.
  void setPrevious(int64_t count, uint32_t lsb) {
    msb_ = count - lsb;
    lsb_ = lsb;
  }

 private:
  int64_t msb_ = 0;
  uint32_t lsb_ = 0;
};

}  // namespace tarn

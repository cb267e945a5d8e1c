#pragma once

#include <cstdint>

namespace tarn {

/// The size of a picture in luma samples, as a damaged parameter set may state it: 0 and negative values occur.
struct PictureSize {
  int64_t width = 0;
  int64_t height = 0;

  bool operator==(const PictureSize&) const = default;
};

}  // namespace tarn

#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

struct VideoCodec;

/// The upper left of a track's matrix (ISO/IEC 14496-12 8.3.2), which turns and mirrors its pictures.
struct PictureTurn {
  std::array<int32_t, 2> right = {1, 0};  ///< where a step to the right leads
  std::array<int32_t, 2> down = {0, 1};
};

/// The pictures of a movie that need no other one, and what it takes to decode and show them.
struct KeyPictures {
  const VideoCodec* codec = nullptr;
  Bytes configuration = {};  ///< contents of the `avcC` or `hvcC`
  /// How wide and how high a pixel is (ISO/IEC 14496-12 12.1.4).
  uint32_t pixelWidth = 1;
  uint32_t pixelHeight = 1;
  PictureTurn turn = {};
  std::vector<Bytes> samples = {};  ///< the first ones, in order
};

/// Reads so many of the first video track that holds AVC or HEVC, of those with the sample entry of the first one.
/// Throws Error if there is no such track, or its tables cannot be read; what is missing in the file is passed over.
KeyPictures readKeyPictures(FileHandle& file, size_t count);

}  // namespace tarn

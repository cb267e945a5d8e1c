#include "parameters/PictureReader.h"

#include "parameters/detail/AVCPictureReader.h"
#include "parameters/detail/HEVCPictureReader.h"

namespace tarn {

std::unique_ptr<PictureReader> PictureReader::make(const VideoCodec& codec, const ParameterSets& sets) {
  if (&codec == &VideoCodec::hevc) return std::make_unique<HEVCPictureReader>(sets);
  return std::make_unique<AVCPictureReader>(sets);
}

}  // namespace tarn

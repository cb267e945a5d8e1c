#include "remux/LeftAlone.h"

#include <fmt/format.h>

#include "mp4/MP4BoxUtils.h"
#include "parameters/VideoCodec.h"
#include "platform/Error.h"
#include "presentation/Presentation.h"
#include "remux/detail/TagRepair.h"

namespace tarn {

namespace {

bool isSoundAlone(FileManager& files, const Path& path) {
  auto file = files.open(path, OpenMode::reading);
  auto moov = MP4BoxUtils::findTopLevelBox(*file, "moov");
  return moov && !MP4BoxUtils::findTrack(*file, *moov, MP4TrackType::video);
}

}  // namespace

std::optional<std::string> whyTheVideoIsLeftAlone(FileManager& files, const Path& path) {
  try {
    if (isFragmented(files, path)) return "it is in fragments";
    if (isSoundAlone(files, path)) return std::nullopt;
    if (auto tag = detectHEVCTag(files, path)) {
      if (isEncryptedVideo(*tag)) return fmt::format("the video is encrypted ({})", *tag);
      return fmt::format("video with the tag '{}' is not repaired", *tag);
    }
    return "no video codec was recognised";
  } catch (const Error& failure) {
    return "no video codec was recognised: " + failure.description();
  }
}

}  // namespace tarn

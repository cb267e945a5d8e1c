#include "app/LeftAlone.h"

#include <fmt/format.h>

#include "platform/Error.h"
#include "presentation/Presentation.h"
#include "remux/MP4Remuxer.h"

namespace tarn {

std::string whyTheVideoIsLeftAlone(FileManager& files, const Path& path) {
  try {
    if (isFragmented(files, path)) return "it is fragmented: its moov does not list all samples";
    if (auto tag = MP4Remuxer::detectHEVCTag(files, path)) {
      if (*tag == "encv") return "the video is encrypted (encv)";
      return fmt::format("video with the tag '{}' is not repaired", *tag);
    }
    return "no video codec was recognised";
  } catch (const Error& failure) {
    return "no video codec was recognised: " + failure.description();
  }
}

}  // namespace tarn

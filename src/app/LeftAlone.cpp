#include "app/LeftAlone.h"

#include <fmt/format.h>

#include <limits>

#include "mp4/MP4BoxUtils.h"
#include "platform/Error.h"
#include "presentation/Presentation.h"
#include "remux/MP4Remuxer.h"

namespace tarn {
namespace {

bool liesMoovTooFarBehind(FileManager& files, const Path& path) {
  auto file = files.open(path, OpenMode::reading);
  auto moov = MP4BoxUtils::findBox(*file, "moov", std::numeric_limits<uint64_t>::max());
  return moov && moov->offset >= topLevelSearchLimit;
}

}  // namespace

std::string whyTheVideoIsLeftAlone(FileManager& files, const Path& path) {
  try {
    if (isFragmented(files, path)) return "it is fragmented: its moov does not list all samples";
    if (auto tag = MP4Remuxer::detectHEVCTag(files, path)) {
      if (*tag == "encv") return "the video is encrypted (encv)";
      return fmt::format("video with the tag '{}' is not repaired", *tag);
    }
    if (liesMoovTooFarBehind(files, path)) {
      return fmt::format("the moov begins {} MiB or more into the file, where it is not looked for",
                         topLevelSearchLimit >> 20);
    }
    return "no video codec was recognised";
  } catch (const Error& failure) {
    return "no video codec was recognised: " + failure.description();
  }
}

}  // namespace tarn

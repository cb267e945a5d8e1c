#include "media/AVAsset.h"

#include <array>
#include <limits>
#include <optional>
#include <string_view>

#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "platform/Error.h"

namespace tarn {
namespace {

/// A 32-bit field that follows two times of 32 or 64 bits, by the box's version: `track_ID` of a `tkhd`, `timescale` of
/// an `mdhd` (ISO/IEC 14496-12 8.3.2, 8.4.2).
uint32_t fieldBehindTimes(FileHandle& file, const std::optional<MP4BoxInfo>& box) {
  if (!box) return 0;
  std::array<uint8_t, 24> contents;
  file.seek(box->contentOffset());
  auto read = std::span<const uint8_t>(contents).first(file.readInto(contents));
  bool hasLongTimes = !read.empty() && read[0] != 0;
  return readUInt32(read, hasLongTimes ? 20 : 12).value_or(0);
}

AVAssetTrack readTrack(FileHandle& file, const MP4BoxInfo& trak, AVMediaType mediaType) {
  AVAssetTrack track{.mediaType = mediaType, .trak = trak};
  track.trackID = fieldBehindTimes(file, MP4BoxUtils::findChildBox(file, trak, "tkhd"));
  if (auto mdia = MP4BoxUtils::findChildBox(file, trak, "mdia")) {
    track.naturalTimeScale = fieldBehindTimes(file, MP4BoxUtils::findChildBox(file, *mdia, "mdhd"));
  }
  return track;
}

}  // namespace

std::vector<AVAssetTrack> AVAsset::tracks(AVMediaType withMediaType) const {
  std::string_view handler =
      handlerTypeText(withMediaType == AVMediaType::video ? MP4TrackType::video : MP4TrackType::audio);
  std::vector<AVAssetTrack> tracks;
  try {
    auto file = files_.open(url_, OpenMode::reading);
    auto moov = MP4BoxUtils::findBox(*file, "moov", std::numeric_limits<uint64_t>::max());
    if (!moov) return tracks;
    FileBoxWalker walker(*file, moov->contentOffset(), moov->end(), boxwalk::tracks);
    while (auto header = walker.next()) {
      if (header->type != "trak") continue;
      MP4BoxInfo trak{header->size, header->type, header->offset, header->headerSize};
      if (MP4BoxUtils::getHandlerType(*file, trak) == handler) tracks.push_back(readTrack(*file, trak, withMediaType));
    }
  } catch (const PosixError&) {
    // An asset that cannot be read has the tracks that were found.
  }
  return tracks;
}

}  // namespace tarn

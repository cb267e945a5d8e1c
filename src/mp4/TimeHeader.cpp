#include "mp4/TimeHeader.h"

#include <algorithm>
#include <limits>
#include <span>

#include "mp4/BoxLayout.h"

namespace tarn {
namespace {

/// The first `size` bytes of a box, or what is there of them, as if its header had 8 bytes: the layout counts from such
/// a header, and the file's may be longer.
Bytes readFront(FileHandle& file, const MP4BoxInfo& box, size_t size) {
  Bytes bytes(std::min<uint64_t>(size, layout::boxHeaderSize + box.contentSize()));
  file.seek(box.contentOffset());
  bytes.resize(layout::boxHeaderSize + file.readInto(std::span(bytes).subspan(layout::boxHeaderSize)));
  return bytes;
}

}  // namespace

std::optional<TimeHeader> parseTimeHeader(ByteView box, LongHeader longHeader) {
  const uint64_t version = layout::loadWithin(box, layout::version).value_or(0);
  const bool isLong = longHeader == LongHeader::isVersion1 ? version == 1 : version != 0;
  const auto& fields = layout::timeHeader(isLong);
  const auto timescale = layout::loadWithin(box, fields.timescale);
  if (!timescale) return std::nullopt;
  const uint64_t unknown = isLong ? std::numeric_limits<uint64_t>::max() : std::numeric_limits<uint32_t>::max();
  const uint64_t duration = layout::loadWithin(box, fields.duration).value_or(unknown);
  return TimeHeader{static_cast<uint32_t>(*timescale), duration == unknown ? 0 : duration};
}

std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& header) {
  return parseTimeHeader(readFront(file, header, layout::timeHeader64.duration.end()), LongHeader::isNotVersion0);
}

std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& parent, std::string_view type) {
  auto header = MP4BoxUtils::findChildBox(file, parent, type);
  return header ? readTimeHeader(file, *header) : std::nullopt;
}

TrackHeader readTrackHeader(FileHandle& file, const MP4BoxInfo& trak) {
  const auto tkhd = MP4BoxUtils::findChildBox(file, trak, "tkhd");
  if (!tkhd) return {};
  const Bytes box = readFront(file, *tkhd, layout::trackMatrix64.end());
  const bool isLong = layout::loadWithin(box, layout::version).value_or(0) != 0;
  const uint64_t flags = layout::loadWithin(box, layout::versionAndFlags).value_or(0);
  const uint64_t trackID = layout::loadWithin(box, isLong ? layout::trackID64 : layout::trackID32).value_or(0);
  const auto& matrix = isLong ? layout::trackMatrix64 : layout::trackMatrix32;
  TrackHeader header{.trackID = static_cast<uint32_t>(trackID), .isEnabled = (flags & layout::trackEnabledFlag) != 0};
  if (box.size() >= matrix.end()) header.matrix = textOf(ByteView(box).subspan(matrix.offset, matrix.width));
  return header;
}

}  // namespace tarn

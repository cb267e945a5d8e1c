#include "mp4/TimeHeader.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>

#include "mp4/BoxLayout.h"

namespace tarn {

std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& header) {
  // The layout counts from a header of 8 bytes; the file's may be longer.
  std::array<uint8_t, layout::timeHeader64.duration.end()> box{};
  auto contents = std::span(box).subspan(layout::boxHeaderSize);
  file.seek(header.contentOffset());
  size_t end =
      layout::boxHeaderSize + file.readInto(contents.first(std::min<uint64_t>(contents.size(), header.contentSize())));
  bool isLong = layout::load(box.data(), layout::version) != 0;
  const auto& fields = layout::timeHeader(isLong);
  if (end < fields.timescale.end()) return std::nullopt;
  TimeHeader result{.timescale = layout::load32(box.data(), fields.timescale)};
  uint64_t unknown = isLong ? std::numeric_limits<uint64_t>::max() : std::numeric_limits<uint32_t>::max();
  if (end >= fields.duration.end()) result.duration = layout::load(box.data(), fields.duration);
  if (result.duration == unknown) result.duration = 0;
  return result;
}

std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& parent, std::string_view type) {
  auto header = MP4BoxUtils::findChildBox(file, parent, type);
  return header ? readTimeHeader(file, *header) : std::nullopt;
}

}  // namespace tarn

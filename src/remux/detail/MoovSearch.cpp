#include "remux/detail/MoovSearch.h"

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"

namespace tarn {
std::vector<size_t> findBoxes(ByteView moov, std::string_view type, size_t start, size_t end) {
  std::vector<size_t> offsets;
  BufferBoxWalker walker(moov, start, end, boxwalk::openChildren);
  while (auto header = walker.next()) {
    if (header->type == type) offsets.push_back(static_cast<size_t>(header->offset));
  }
  return offsets;
}

std::optional<size_t> findFirstBox(ByteView moov, std::string_view type, size_t start, size_t end) {
  BufferBoxWalker walker(moov, start, end, boxwalk::openChildren);
  while (auto header = walker.next()) {
    if (header->type == type) return static_cast<size_t>(header->offset);
  }
  return std::nullopt;
}

std::optional<size_t> findVideoTrak(ByteView moov) {
  for (size_t trak : findBoxes(moov, "trak", layout::boxHeaderSize, moov.size())) {
    size_t end = trak + *readUInt32(moov, trak);
    auto mdia = findFirstBox(moov, "mdia", trak + layout::boxHeaderSize, end);
    auto hdlr = mdia ? findFirstBox(moov, "hdlr", *mdia + layout::boxHeaderSize, end) : std::nullopt;
    if (!hdlr || moov.size() - *hdlr < layout::handlerType.end()) continue;
    if (textOf(moov.subspan(*hdlr + layout::handlerType.offset, layout::handlerType.width)) ==
        handlerTypeText(MP4TrackType::video))
      return trak;
  }
  return std::nullopt;
}

}  // namespace tarn

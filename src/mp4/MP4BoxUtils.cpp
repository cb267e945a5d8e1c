#include "mp4/MP4BoxUtils.h"

#include <array>
#include <limits>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "platform/Checked.h"
#include "platform/Error.h"

namespace tarn {
namespace {

uint64_t endOf(const MP4BoxInfo& box) {
  return checkedAdd(box.offset, box.size).value_or(std::numeric_limits<uint64_t>::max());
}

std::optional<MP4BoxInfo> findFirst(FileBoxWalker walker, std::string_view type) {
  while (auto header = walker.next()) {
    if (header->type == type) return header;
  }
  return std::nullopt;
}

std::optional<size_t> findFirst(ByteView data, std::string_view type, size_t start) {
  BufferBoxWalker walker(data, start, data.size(), boxwalk::buffer);
  while (auto header = walker.next()) {
    if (header->type == type) return header->offset;
  }
  return std::nullopt;
}

/// Puts a file's position back at the end of the scope.
class PositionGuard {
 public:
  explicit PositionGuard(FileHandle& file) : file_(file), position_(file.offset()) {}
  ~PositionGuard() {
    try {
      file_.seek(position_);
    } catch (const PosixError&) {
      // The next read fails and says so.
    }
  }
  PositionGuard(const PositionGuard&) = delete;
  PositionGuard& operator=(const PositionGuard&) = delete;

 private:
  FileHandle& file_;
  uint64_t position_;
};

}  // namespace

std::string_view handlerTypeText(MP4TrackType type) {
  return type == MP4TrackType::video ? "vide" : "soun";
}

std::optional<MP4BoxInfo> MP4BoxUtils::findBox(FileHandle& file, std::string_view type, uint64_t maxSearch) {
  uint64_t start = file.offset();
  uint64_t limit = checkedAdd(start, maxSearch).value_or(std::numeric_limits<uint64_t>::max());
  return findFirst(FileBoxWalker(file, start, limit, boxwalk::topLevel), type);
}

std::optional<MP4BoxInfo> MP4BoxUtils::findTopLevelBox(FileHandle& file, std::string_view type) {
  FileBoxWalker walker(file, 0, std::numeric_limits<uint64_t>::max(), boxwalk::topLevel);
  for (size_t headers = 0; headers < mostTopLevelHeaders; ++headers) {
    auto header = walker.next();
    if (!header) return std::nullopt;
    if (header->type == type) return header;
  }
  return std::nullopt;
}

std::optional<MP4BoxInfo> MP4BoxUtils::findBoxInContainer(FileHandle& file, const MP4BoxInfo& container,
                                                          std::string_view type) {
  return findFirst(FileBoxWalker(file, file.offset(), endOf(container), boxwalk::children), type);
}

std::optional<MP4BoxInfo> MP4BoxUtils::findChildBox(FileHandle& file, const MP4BoxInfo& container,
                                                    std::string_view type) {
  return findFirst(FileBoxWalker(file, container.contentOffset(), endOf(container), boxwalk::children), type);
}

std::optional<MP4BoxInfo> MP4BoxUtils::findDescendant(FileHandle& file, const MP4BoxInfo& container,
                                                      std::initializer_list<std::string_view> path) {
  std::optional<MP4BoxInfo> box = container;
  for (std::string_view type : path) {
    box = findChildBox(file, *box, type);
    if (!box) break;
  }
  return box;
}

std::optional<MP4BoxInfo> MP4BoxUtils::findTrack(FileHandle& file, const MP4BoxInfo& moov, MP4TrackType type) {
  FileBoxWalker walker(file, moov.contentOffset(), endOf(moov), boxwalk::tracks);
  while (auto header = walker.next()) {
    if (header->type != "trak") continue;
    if (getHandlerType(file, *header) == handlerTypeText(type)) return header;
  }
  return std::nullopt;
}

std::optional<std::string> MP4BoxUtils::getHandlerType(FileHandle& file, const MP4BoxInfo& trak) {
  PositionGuard guard(file);
  auto hdlr = findDescendant(file, trak, {"mdia", "hdlr"});
  if (!hdlr) return std::nullopt;
  try {
    std::array<uint8_t, layout::handlerType.end() - layout::boxHeaderSize> contents;
    file.seek(hdlr->contentOffset());
    if (file.readInto(contents) != contents.size()) return std::nullopt;
    return decodeASCII(std::span(contents).last<layout::handlerType.width>());
  } catch (const PosixError&) {
    return std::nullopt;
  }
}

std::vector<size_t> MP4BoxUtils::findBoxOffsets(ByteView data, std::string_view type, size_t startOffset,
                                                std::optional<size_t> endOffset, bool recursive) {
  std::vector<size_t> offsets;
  BufferBoxWalker walker(data, startOffset, endOffset.value_or(data.size()),
                         recursive ? boxwalk::bufferDeep : boxwalk::buffer);
  while (auto header = walker.next()) {
    if (header->type == type) offsets.push_back(header->offset);
  }
  return offsets;
}

std::optional<size_t> MP4BoxUtils::findTrakOffset(ByteView moov, MP4TrackType type) {
  for (size_t trak : findBoxOffsets(moov, "trak", layout::boxHeaderSize, std::nullopt, false)) {
    auto mdia = findFirst(moov, "mdia", trak + layout::boxHeaderSize);
    auto hdlr = mdia ? findFirst(moov, "hdlr", *mdia + layout::boxHeaderSize) : std::nullopt;
    if (!hdlr || moov.size() - *hdlr < layout::handlerType.end()) continue;
    if (decodeASCII(moov.subspan(*hdlr + layout::handlerType.offset, layout::handlerType.width)) ==
        handlerTypeText(type))
      return trak;
  }
  return std::nullopt;
}

}  // namespace tarn

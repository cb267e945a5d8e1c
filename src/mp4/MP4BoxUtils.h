#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/BoxHeader.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

enum class MP4TrackType { video, audio };

/// The handler_type of a track type: "vide" or "soun" (ISO/IEC 14496-12 8.4.3).
std::string_view handlerTypeText(MP4TrackType type);

/// Finds boxes (ISO/IEC 14496-12 4.2) in files and buffers. A search reports absence, not damage: a short read, a read
/// error, a size that makes no progress or overflows ends it with nothing found. Box contents are not looked at. No
/// state; a FileHandle's position is moved unless an operation says otherwise.
class MP4BoxUtils {
 public:
  /// Top-level search from the file's position on. A box that begins `maxSearch` bytes or more after that position is
  /// not found.
  static std::optional<MP4BoxInfo> findBox(FileHandle& file, std::string_view type, uint64_t maxSearch);

  /// This many headers are read at most where a whole file is searched: far more than a file has, and read in a moment.
  static constexpr size_t mostTopLevelHeaders = 100'000;

  /// Search over the top level of the whole file, wherever the box is. Returns nothing after `mostTopLevelHeaders`
  /// other boxes.
  static std::optional<MP4BoxInfo> findTopLevelBox(FileHandle& file, std::string_view type);

  /// Search from the file's position to the end of the container. The caller seeks to the container's contents first.
  static std::optional<MP4BoxInfo> findBoxInContainer(FileHandle& file, const MP4BoxInfo& container,
                                                      std::string_view type);

  /// Search among the container's direct children.
  static std::optional<MP4BoxInfo> findChildBox(FileHandle& file, const MP4BoxInfo& container, std::string_view type);

  /// Search down a path of direct children, as {"mdia", "mdhd"} from a `trak`.
  static std::optional<MP4BoxInfo> findDescendant(FileHandle& file, const MP4BoxInfo& container,
                                                  std::initializer_list<std::string_view> path);

  /// The first `trak` of the `moov` whose handler is that of the type.
  static std::optional<MP4BoxInfo> findTrack(FileHandle& file, const MP4BoxInfo& moov, MP4TrackType type);

  /// The handler_type of a track. Restores the file's position.
  static std::optional<std::string> getHandlerType(FileHandle& file, const MP4BoxInfo& trak);

  /// Offsets, in pre-order, of the boxes of this type in a buffer, from `startOffset` on to `endOffset` (by default
  /// the buffer's end). Knows 32-bit sizes only: a size field of 0 or 1 ends its level. With `recursive`, container
  /// boxes are entered.
  static std::vector<size_t> findBoxOffsets(ByteView data, std::string_view type, size_t startOffset,
                                            std::optional<size_t> endOffset, bool recursive);

  /// Offset of the first `trak` of the type in a buffer that holds a whole `moov` with an 8-byte header.
  static std::optional<size_t> findTrakOffset(ByteView moov, MP4TrackType type);
};

}  // namespace tarn

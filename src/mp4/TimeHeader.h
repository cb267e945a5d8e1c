#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

/// The clock of an `mdhd` or `mvhd` (ISO/IEC 14496-12 8.4.2, 8.2.2), in either version.
struct TimeHeader {
  uint32_t timescale = 0;  ///< ticks per second
  /// In ticks; 0 where the file says that it is not known (all bits set), or the header ends ahead of it.
  uint64_t duration = 0;
};

/// Nothing where the header ends ahead of its timescale. Moves the file's position; throws PosixError.
std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& header);

/// The header among the parent's children; nothing also where there is none.
std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& parent, std::string_view type);

}  // namespace tarn

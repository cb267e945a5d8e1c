#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "mp4/MP4BoxUtils.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// The clock of an `mdhd` or `mvhd` (ISO/IEC 14496-12 8.4.2, 8.2.2), in either version.
struct TimeHeader {
  uint32_t timescale = 0;  ///< ticks per second
  /// In ticks; 0 if the file says that it is not known (all bits set), or the header ends before it.
  uint64_t duration = 0;
};

/// Which headers have the long fields of version 1. The standard knows the versions 0 and 1; readers of damaged files
/// differ on all others.
enum class LongHeader { isVersion1, isNotVersion0 };

/// Reads a box with an 8-byte header. Nothing if it ends before its timescale.
std::optional<TimeHeader> parseTimeHeader(ByteView box, LongHeader longHeader);

/// The same for a box of a file (LongHeader::isNotVersion0). Moves the file's position; throws PosixError.
std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& header);

/// The header among the parent's children; also nothing if there is none.
std::optional<TimeHeader> readTimeHeader(FileHandle& file, const MP4BoxInfo& parent, std::string_view type);

/// What a `tkhd` (ISO/IEC 14496-12 8.3.2) says beside the track's times.
struct TrackHeader {
  uint32_t trackID = 0;  ///< 0 if the header ends before it
  bool isEnabled = true;
  std::string matrix = {};  ///< its 36 bytes; empty if the header ends before them
};

/// The `tkhd` among the children of a `trak`; the default if there is none. Moves the file's position; throws
/// PosixError.
TrackHeader readTrackHeader(FileHandle& file, const MP4BoxInfo& trak);

}  // namespace tarn

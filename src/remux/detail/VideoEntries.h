#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "parameters/ParameterSets.h"
#include "parameters/VideoCodec.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// One sample entry of a video track and what its configuration box holds (ISO/IEC 14496-15 5.3.3, 8.3.3).
struct VideoEntry {
  uint64_t offset = 0;  ///< of the entry in the file
  std::string tag;
  ParameterSets sets = {};  ///< those that a decoder can read; none if there is no configuration box or it is damaged
  bool hasRecord = false;   ///< a configuration box can be read
  int nalLengthSize = 4;    ///< as the record states it, in bytes
  /// What else the record holds, in words ("1 SEI message"); a rebuilt record has no place for it.
  std::vector<std::string> others = {};
};

/// Reads the entries of an `stsd`, at most as many as it counts. Boxes in an entry that are odd are stepped over. Moves
/// the file's position; throws PosixError.
std::vector<VideoEntry> readVideoEntries(FileHandle& file, const MP4BoxInfo& stsd, const VideoCodec& codec);

/// Reads the contents of a configuration box into an entry; a damaged one has no sets.
void readRecord(ByteView contents, const VideoCodec& codec, VideoEntry& entry);

}  // namespace tarn

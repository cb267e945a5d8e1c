#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mp4/EditList.h"

namespace tarn {

/// The name under which a run keeps the entries of its source.
using OriginalEditListEntry = EditListEntry;

/// How a file's tracks stood to each other before any repair: what one step of a run finds out and a later step needs.
/// It lives in memory for one run.
struct OriginalSyncInfo {
  std::vector<OriginalEditListEntry> videoEditList;  ///< at most 16 entries
  int64_t videoMediaStartMovieTime = 0;              ///< leading empty edits, movie timescale
  int64_t videoFirstCts = 0;                         ///< first composition offset, video timescale
  uint32_t videoTrackTimescale = 0;
  std::vector<OriginalEditListEntry> audioEditList;  ///< at most 16 entries; empty without an audio track
  int64_t audioMediaStartMovieTime = 0;              ///< leading empty edits, movie timescale
  int64_t audioMediaTime = 0;                        ///< of the first entry that is not empty, audio timescale
  uint32_t audioTrackTimescale = 48000;
  int64_t audioEncoderDelay = 2112;  ///< default delay of the codec, audio timescale
  int64_t syncOffsetMovieTime = 0;   ///< audio start minus video start, movie timescale: positive when audio is late
  uint32_t movieTimescale = 0;
  double syncOffsetSeconds = 0;

  std::string text() const;
};

}  // namespace tarn

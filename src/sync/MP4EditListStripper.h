#pragma once

#include <optional>
#include <vector>

#include "pipeline/OriginalSyncInfo.h"
#include "platform/FileManager.h"

namespace tarn {

/// Makes a copy of a file whose audio track has no edit list (ISO/IEC 14496-12 8.6.5), so that a decoder sees all of
/// the audio media and not the part that the list selects. No state; works on the thread of its caller.
class MP4EditListStripper {
 public:
  /// The removed entries, as stored: `to` is then a stripped copy of `from`. Nothing if the first audio track has no
  /// edit list with entries: `to`, which must not exist, is then a plain copy.
  /// Throws MP4EditListStripperError, and failures of the file layer; nothing is left at `to` then.
  static std::optional<std::vector<OriginalEditListEntry>> stripAudioEditList(FileManager& files, const Path& from,
                                                                              const Path& to);
};

}  // namespace tarn

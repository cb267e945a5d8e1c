#include "pipeline/OriginalSyncInfo.h"

#include <fmt/format.h>

namespace tarn {

std::string OriginalSyncInfo::text() const {
  return fmt::format("OriginalSyncInfo: syncOffset={:.1f}ms, videoStart={}, audioStart={}, movieTimescale={}",
                     syncOffsetSeconds * 1000, videoMediaStartMovieTime, audioMediaStartMovieTime, movieTimescale);
}

}  // namespace tarn

#pragma once

#include "media/AVAsset.h"

namespace tarn {

struct FirstPTS {
  CMTime video = CMTime::zero();
  CMTime audio = CMTime::zero();
};

/// Never fails: a track that cannot be read has the start of its time range, a missing one zero.
FirstPTS getFirstPTSForTracks(const AVAsset& asset);
CMTime getVideoFirstPTS(FileManager& files, const Path& fileURL);

}  // namespace tarn

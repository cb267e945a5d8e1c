#pragma once

#include <functional>

#include "movie/MovieTree.h"
#include "pipeline/NamesInTheMaking.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"

namespace tarn {

/// Lets `edit` change the `moov` that is at `moovBox`, moves the chunk offsets of all tracks if the media move, and
/// puts it into the file. Returns false, and writes nothing, if the `moov` stays as it is. `names` (may be null) holds
/// the temp file's name. Throws AVSyncError, failures of the file layer, and what `edit` and `check` throw; the file is
/// then as it was.
bool rewriteMoov(FileManager& files, const Path& fileURL, const BoxHeader& moovBox,
                 const std::function<void(MovieBox&)>& edit, NamesInTheMaking* names, const RewriteCheck& check);

}  // namespace tarn

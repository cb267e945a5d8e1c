#pragma once

#include <functional>

#include "platform/FileManager.h"

namespace tarn {

/// Copies a file, with shared extents where the file system can. The copy appears whole or not at all. Throws Error if
/// there is a file in the way that may not be replaced. Returns false, with nothing written, once `isStopped` is true.
bool exportFile(FileManager& files, const Path& from, const Path& to, bool mayReplace,
                const std::function<bool()>& isStopped);

}  // namespace tarn

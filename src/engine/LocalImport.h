#pragma once

#include <cstdint>

#include "platform/FileManager.h"
#include "plugin/TarnBridgePlugin.h"

namespace tarn {

/// Has a file of this machine, which is moved away, go the way of a download that has arrived: repaired and put into an
/// album. Returns the id under which it goes; how it ends is told as for any download. Throws Error, and leaves the
/// file where it is, if no player could show it or nothing new is taken just now.
int64_t importLocalFile(FileManager& files, TarnBridge& bridge, const Path& file, const std::string& filename,
                        const std::string& album);

}  // namespace tarn

#pragma once

#include <optional>

#include "platform/FileManager.h"

namespace tarn {

/// The user's folder for videos, as the desktop names it in `user-dirs.dirs` (XDG_VIDEOS_DIR). Nothing if it names
/// none, or the home directory, or one that does not exist.
std::optional<Path> videosDirectory();

/// Shows the albums in the user's folder for videos, as a symbolic link "Tarn" that leads to `albums`. Whatever has
/// that name there stays. Returns whether the link is made.
bool linkAlbums(const Path& albums);

}  // namespace tarn

#pragma once

#include <tarn/library.h>

#include <string>
#include <vector>

namespace tarn {

/// Finds the one video that a user means: by its identifier, by the path of its file, by "Album/file name" or by its
/// file name alone. Throws Error, in words for people, if there is none or more than one.
LibraryAsset videoNamed(const std::vector<LibraryAlbum>& albums, const std::string& name);

/// The same for all the names; those that are named twice come once.
std::vector<LibraryAsset> videosNamed(const std::vector<LibraryAlbum>& albums, const std::vector<std::string>& names);

}  // namespace tarn

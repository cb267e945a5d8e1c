#pragma once

#include <tarn/export.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tarn {

/// A video of the library.
struct LibraryAsset {
  std::string assetId;
  std::string filename;  ///< under which it stands in the album
  uint64_t size = 0;     ///< bytes
  std::chrono::system_clock::time_point created = {};
  std::filesystem::path path = {};
};

struct LibraryAlbum {
  std::string title;
  std::vector<LibraryAsset> assets;  ///< in the order in which they joined it
};

/// What is to be done with a video of the library.
struct AssetChange {
  enum class Action {
    remove,   ///< takes it out of all albums; for 24 hours it can be restored
    erase,    ///< removes it for good, at once
    restore,  ///< puts a removed one back where it was
    rename,   ///< gives it the file name in all its albums
    move,     ///< takes it from its albums to this one
  };

  std::string assetId;
  Action action = Action::remove;
  std::string filename = {};  ///< to rename: made safe and unique, and with the ending of before if it has none
  std::string album = {};     ///< to move: made if there is none of this title
};

}  // namespace tarn

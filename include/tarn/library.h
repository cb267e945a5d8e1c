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
  std::string assetId;                                 ///< names it for good, whatever album and name it has
  std::string filename;                                ///< in the album
  uint64_t size = 0;                                   ///< bytes
  std::chrono::system_clock::time_point created = {};  ///< when it was saved
  std::filesystem::path path = {};                     ///< absolute: in the album, or the library's own file
};

/// An album of the library.
struct LibraryAlbum {
  std::string title;                 ///< no other album has it
  std::vector<LibraryAsset> assets;  ///< in the order in which they joined it
};

/// What is to be done with a video of the library.
struct AssetChange {
  /// What can be done with it.
  enum class Action {
    remove,   ///< takes it out of all albums; for 24 hours it can be restored
    erase,    ///< removes it for good, at once
    restore,  ///< puts a removed one back where it was
    rename,   ///< gives it the file name in all its albums
    move,     ///< takes it from its albums to this one
  };

  std::string assetId;             ///< of the video
  Action action = Action::remove;  ///< what to do
  std::string filename = {};       ///< to rename: made safe and unique, and with the ending of before if it has none
  std::string album = {};          ///< to move: made if there is none of this title
};

}  // namespace tarn

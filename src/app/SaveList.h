#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

/// One video that the user wants.
struct SaveItem {
  std::string url;
  std::string album;
  std::optional<std::string> filename = {};  ///< else the engine finds one
};

/// Throws UsageError, which begins with `place`, for what cannot be saved: no URL, an impossible name, no album.
void checkItem(const SaveItem& item, const std::string& place = "");

/// The items of a list: a line for each, with URL, album and file name, parted by tabs; the last two may be left out or
/// empty, and the album is then `album`. Empty lines and those that begin with "#" are passed over. Throws UsageError
/// with the number of the line for one that cannot be saved. `name` is what the user calls the list.
std::vector<SaveItem> parseSaveList(std::string_view text, const std::string& album, const std::string& name);

}  // namespace tarn

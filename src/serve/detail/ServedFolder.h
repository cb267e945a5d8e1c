#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/FileManager.h"

namespace tarn {

/// The built page: a folder whose files a browser may read, and nothing outside it.
class ServedFolder {
 public:
  /// Throws Error when the folder has no index.html.
  explicit ServedFolder(const Path& root);

  /// The regular file that a percent-encoded URL path names. Nothing when there is none, for hidden names, and for a
  /// path that leads out of the folder in any way, by a symbolic link too.
  std::optional<Path> find(std::string_view urlPath) const;

  /// A file of the folder by its own name.
  Path operator/(const char* name) const { return root_ / name; }

 private:
  Path root_;
};

/// The media type of a page's file by its ending.
std::string contentType(const Path& file);

/// The same for a saved video. The names of videos come from elsewhere, so this never is a type that a browser would
/// run.
std::string videoContentType(const Path& file);

}  // namespace tarn

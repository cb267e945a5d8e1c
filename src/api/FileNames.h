#pragma once

#include <optional>
#include <string>

namespace tarn {

/// The file name under which a URL's video is saved when the user gives none: the last part of its path,
/// percent-decoded, made one safe directory entry of at most 200 bytes, with ".mp4" when it lacks a video ending;
/// "video.mp4" when there is no such part.
std::string defaultFilename(const std::string& url);

/// Why no video can be saved under this file name or into this album, as a sentence; nothing if one can. A name is one
/// directory entry of at most 255 bytes, an album is not empty; both are UTF-8 without control characters.
std::optional<std::string> whyNoFilename(const std::string& name);
std::optional<std::string> whyNoAlbum(const std::string& album);

}  // namespace tarn

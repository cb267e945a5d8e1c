#pragma once

#include <string>

namespace tarn {

/// The file name under which a URL's video is saved when the user gives none: the last part of its path,
/// percent-decoded, made one safe directory entry of at most 200 bytes, with ".mp4" when it lacks a video ending;
/// "video.mp4" when there is no such part.
std::string defaultFilename(const std::string& url);

}  // namespace tarn

#pragma once

#include <set>
#include <string>
#include <string_view>

namespace tarn {

enum class NameKind { file, directory };

/// Makes a name for one directory entry out of any text: valid UTF-8 of at most 255 bytes, never empty, never hidden,
/// without "/" and control characters (each becomes "_", as does a byte that is not UTF-8). A long name is cut at a
/// character; a file keeps its ending. An empty text gives "video.mp4" or "Untitled".
std::string safeName(std::string_view text, NameKind kind);

/// The name under which a video is saved to which nobody has given one, out of a part of its URL or a name that its
/// server gives: one safe directory entry of at most 200 bytes, with ".mp4" when it lacks a video ending; "video.mp4"
/// for nothing.
std::string videoName(std::string text);

/// The name with `suffix` before its ending: "clip.mp4" and "-7" give "clip-7.mp4". What stands before it is cut at a
/// character so that the whole has at most 255 bytes. `name` must be safe already.
std::string withSuffix(std::string_view name, NameKind kind, const std::string& suffix);

/// The first of "clip.mp4", "clip 2.mp4", "clip 3.mp4", ... that is not taken. `name` must be safe already.
std::string uniqueName(const std::string& name, NameKind kind, const std::set<std::string>& taken);

}  // namespace tarn

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/FileManager.h"
#include "support/BoxEditor.h"

namespace tarn::test {

/// Clips of a few seconds: at each k + 0.2 s a white picture and a beep of 40 ms, a quiet tone under the beeps.

inline const std::string avc = "-c:v libx264 -pix_fmt yuv420p -preset veryfast -g 25 -bf 2";
inline const std::string avcInBand = avc + " -x264-params repeat-headers=1";
inline const std::string avcPlain = "-c:v libx264 -pix_fmt yuv420p -preset veryfast -g 25 -bf 0";
inline const std::string hev1 = "-c:v libx265 -pix_fmt yuv420p -preset ultrafast -x265-params log-level=none:keyint=25";
inline const std::string hev1InBand = hev1 + ":repeat-headers=1";
inline const std::string hvc1 = hev1 + " -tag:v hvc1";
inline const std::string stereo = "-c:a aac -ac 2";
inline const std::string mono = "-c:a aac -ac 1";
inline const std::string ac3 = "-c:a ac3 -ac 2";

/// Options of the two encoders, empty for no such track, and of the muxer.
struct ClipRecipe {
  std::string video = avc;
  std::string audio = stereo;
  int seconds = 4;
  int audioSeconds = 0;  ///< 0: as long as the video
  int audioRate = 48000;
  std::string rate = "25";
  std::string size = "160x120";
  std::string muxer = {};
  std::string ending = ".mp4";
};
Path clip(const ClipRecipe& recipe);

/// What `ffmpeg <arguments>` makes of clips, not encoded anew unless told; {0} in the arguments is the first clip.
Path muxed(const std::string& arguments, const std::vector<Path>& clips, const std::string& ending = ".mp4");

/// Two clips of video one behind the other, parameter sets left in the samples, under this tag, and audio beside them.
Path joinedClips(const ClipRecipe& first, const ClipRecipe& second, const std::string& audio, const std::string& tag);

/// A file that another one is made into, in the directory given.
using Maker = std::function<Path(const Path& directory)>;
Maker made(const ClipRecipe& recipe);
Maker made(const std::string& arguments, const std::vector<ClipRecipe>& recipes, const std::string& ending = ".mp4");

/// The movie with its `moov` changed; chunk offsets follow.
using Edit = std::function<void(BoxTree& moov)>;
Path edited(const Path& file, const std::vector<Edit>& edits, const Path& directory);
Maker edited(const Maker& base, const std::vector<Edit>& edits);

/// The movie with its `moov` behind a free box of 101 MiB, in a sparse file.
Path withFarMoov(const Path& file, const Path& directory);
Maker withFarMoov(const Maker& base);

/// A text track, and chapters, as ffmpeg reads them.
Path subtitles();
Path chapters();

// ---- edits

/// An edit list: durations, and media times of which -1 is empty (ISO/IEC 14496-12 8.6.6).
Edit list(const std::string& handler, const std::vector<std::pair<int32_t, int32_t>>& entries);
Edit withoutList(const std::string& handler);

/// Of the first video track: the sample entry's tag; its configuration box with these kinds of NAL units only (of AVC,
/// the SPS or none), or none.
Edit tagged(const std::string& tag);
Edit keepingSets(const std::vector<int>& nalTypes);
Edit withoutConfiguration();

/// A 32-bit field of a box of the first track with this handler, counted from behind the box's header.
Edit field(const std::string& handler, const std::string& path, size_t at, uint32_t value);

}  // namespace tarn::test

#pragma once

#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn::test {

/// Real media, made and read by ffmpeg and ffprobe.

/// The words of a text, as a command line has them without quotes.
std::vector<std::string> words(const std::string& text);

/// The directory under the system's temporary directory in which made files are kept.
Path mediaCache();

/// A file made by `ffmpeg <arguments> <file>`, the file's ending given. Files are kept in the cache, one
/// for each set of arguments, so treat them as read-only. Throws when ffmpeg fails.
Path madeByFFmpeg(const std::vector<std::string>& arguments, const std::string& ending = ".mp4");

/// Small moving pictures, encoded as asked: `codec` is "libx264" or "libx265", `parameters` are the encoder's own
/// ("keyint=25:repeat-headers=1"), `more` is what else ffmpeg shall do.
struct VideoRecipe {
  std::string codec = "libx264";
  std::string parameters = {};
  std::string pixelFormat = "yuv420p";
  std::string size = "192x144";
  int seconds = 2;  ///< of 25 frames
  std::vector<std::string> more = {};
};
Path encodedVideo(const VideoRecipe& recipe);

/// These videos one behind the other in one file, not encoded anew; parameter sets stay in the samples.
Path concatenated(const std::vector<Path>& parts, const std::string& tag);
Path joinedVideo(const std::vector<VideoRecipe>& parts);

/// What the child process says on its standard output and its standard error, and how it left.
struct ProcessResult {
  int exitCode;
  std::string output;
};
ProcessResult runProcess(const std::vector<std::string>& command);

/// One entry of the first video stream as ffprobe names it ("codec_tag_string"), without a line end.
std::string probeVideo(const Path& file, const std::string& entry);

/// All that ffmpeg's decoder says about the file's streams with `-err_detect explode`; empty for a clean file.
std::string decoderComplaints(const Path& file);

/// One line for each decoded frame of the first video stream: timestamps and hash.
std::string frameHashes(const Path& file);

/// One line for each decoded frame of the first video stream: size and hash, the frame being of the size that it was
/// encoded with.
std::string pictureHashes(const Path& file);

/// One line for each sample of all streams: timestamps, size and hash of its bytes.
std::string sampleHashes(const Path& file);

}  // namespace tarn::test

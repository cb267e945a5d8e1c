#pragma once

#include <string>
#include <vector>

#include "platform/Error.h"

namespace tarn {

/// It ran, and ended with an error.
class FFmpegFailed : public Error {
 public:
  explicit FFmpegFailed(int code);
};

/// Runs ffmpeg with these arguments, without its standard input, output and errors, and waits for it. Throws PosixError
/// if it cannot be started, FFmpegFailed.
void runFFmpeg(const std::vector<std::string>& arguments);

/// Ends the ffmpeg that runs, and keeps another from being started: the process is about to end. Returns when it has
/// ended. From any thread; from then on runFFmpeg() does not return.
void endFFmpeg();

}  // namespace tarn

#pragma once

#include <string>
#include <vector>

namespace tarn {

/// Runs ffmpeg with these arguments behind those that keep it quiet, without standard input, and waits for it. Throws
/// Error when it cannot be started or fails.
void runFFmpeg(const std::vector<std::string>& arguments);

}  // namespace tarn

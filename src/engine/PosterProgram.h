#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// Where the program stands that makes a poster: from this library, or from the program that it is linked into, as both
/// were installed or built. Nothing if it is not there.
std::optional<Path> posterProgram();

/// Starts the program for a video: with no environment, no open file but the video, a pipe for its answer, and "/" as
/// its directory. It confines itself (src/poster). Returns the JPEG; nothing if the program makes none in time, or
/// `isStopped` has become true. Throws PosixError if it cannot be started.
std::optional<Bytes> runPosterProgram(const Path& program, const Path& video, std::chrono::milliseconds timeLimit,
                                      const std::function<bool()>& isStopped);

}  // namespace tarn

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn::test {

/// What a result may differ in from its source.
struct Allowed {
  bool audio = false;      ///< the packets of the first audio track, but not what is heard and when
  bool audioStays = true;  ///< the first audio track must be as even as it was; else it must be even now
  size_t entries = 0;      ///< sample entries that the first video track must have, each complete; 0: not looked at
};

/// Everything in which a result is worse than its source or has kept damage, in words; empty for a good one. Reads both
/// as ffmpeg and ffprobe do, pictures, packets with their flags, audio, tracks and metadata.
std::vector<std::string> worsened(const Path& source, const Path& result, const Allowed& allowed);

/// What comes of a file: it is byte for byte as it came, the same with a problem that is named and stays, or changed
/// for a problem that is named.
enum class Outcome { same, noted, changed };

/// Everything that is wrong with the repair of a file by `tarn`, and with what `inspect` says before it, in words. The
/// result is `out`. It must show what `reference` shows, and be one of these, if that is known.
std::vector<std::string> wrongsOfRepair(const Path& file, const Path& out, std::optional<Outcome> outcome,
                                        const Path& reference, const Allowed& allowed);

}  // namespace tarn::test

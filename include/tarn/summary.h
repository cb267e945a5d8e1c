#pragma once

#include <tarn/export.h>

#include <optional>
#include <string>
#include <vector>

namespace tarn {

/// What was wrong with a video and what a repair did about it, for people. Sentences are without a stop.
struct RepairSummary {
  /// What a player shows, on the video's own clock, in seconds.
  struct Span {
    double start = 0;  ///< seconds
    double end = 0;    ///< seconds
  };
  /// Where a player shows pictures, and where it plays sound.
  struct Timeline {
    std::vector<Span> video = {};  ///< where there are pictures
    std::vector<Span> audio = {};  ///< where there is sound; between two it is silent
    /// How many seconds the sound is later than the picture where both begin; below 0 it is earlier. Absent if the file
    /// does not tell.
    std::optional<double> soundBehindAtStart = {};
    std::optional<double> soundBehindAtEnd = {};  ///< the same where both end
  };

  std::vector<std::string> wrong = {};  ///< one sentence for each fault; empty for a video that needed nothing
  std::vector<std::string> done = {};   ///< one sentence for each change
  std::optional<Timeline> before = {};  ///< of the file of before; absent if its tables do not tell
  std::optional<Timeline> after = {};   ///< of the result; absent if there is none, or its tables do not tell
};

}  // namespace tarn

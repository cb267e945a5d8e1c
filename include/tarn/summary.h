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
    double start = 0;
    double end = 0;
  };
  struct Timeline {
    std::vector<Span> video = {};  ///< where there are pictures
    std::vector<Span> audio = {};  ///< where there is sound; what lies between two is silent
    /// How far the sound is behind the picture where both begin and where they end, as far as the file tells.
    std::optional<double> soundBehindAtStart = {};
    std::optional<double> soundBehindAtEnd = {};
  };

  std::vector<std::string> wrong = {};  ///< a sentence a fault; empty for a video that needed nothing
  std::vector<std::string> done = {};   ///< a sentence a change
  std::optional<Timeline> before = {};
  std::optional<Timeline> after = {};
};

}  // namespace tarn

#pragma once

#include <cstdint>
#include <vector>

#include "mp4/BoxLayout.h"
#include "presentation/Presentation.h"

namespace tarn {

/// Ticks as a time, where one second of them takes 1 / rate seconds; to the nearest nanosecond, and cut at 73 years.
/// Neither the timescale nor the rate may be 0.
MovieTime movieTime(int64_t ticks, uint32_t timescale, int32_t rate = layout::normalRate);

/// One tick of a movie, and a microsecond for what was rounded.
MovieTime tickOf(uint32_t movieTimescale);

/// How much of the media a length of the movie covers, the reverse of movieTicks; cut at 2^60.
struct Ticks {
  int64_t whole;    ///< rounded down
  int64_t touched;  ///< rounded up
};
Ticks mediaTicks(int64_t movieLength, uint32_t movieTimescale, uint32_t timescale, int32_t rate);

/// An edit that shows media, on the movie's timeline.
class LaidEdit {
 public:
  LaidEdit(const PresentedEdit& edit, uint32_t movieTimescale, uint32_t timescale);

  MovieTime start;
  MovieTime end;
  int64_t mediaStart;       ///< track timescale, as the next two
  int64_t mediaEnd;         ///< of the last tick that is shown whole, the end
  int64_t mediaEndTouched;  ///< the same of the last tick of which a part is shown
  int32_t rate;

  /// Shows what is at `mediaStart` all along.
  bool holds() const { return rate == 0; }
  /// Where a time of the media is, as if the edit had neither start nor end. Not for one that holds.
  MovieTime at(int64_t mediaTime) const { return start + movieTime(mediaTime - mediaStart, timescale_, rate); }

 private:
  uint32_t timescale_;
};

/// The edits that show media, in order; those that are empty, last no time or run backwards are left out.
std::vector<LaidEdit> laidEdits(const std::vector<PresentedEdit>& edits, uint32_t movieTimescale, uint32_t timescale);

}  // namespace tarn

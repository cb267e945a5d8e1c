#pragma once

#include <vector>

#include "presentation/Presentation.h"

namespace tarn {

/// Where the media of one track are on the movie's timeline, before and after, compared in time alone. Media time
/// counts in seconds, so that the two tracks may have different timescales and samples.
struct TimeMapChange {
  MovieTime shift{0};        ///< the median over the media shown in both; later is above 0
  MovieTime largestMove{0};  ///< against `shift`; absolute
  MovieTime hidden{0};       ///< how much of the shown time is not shown any more
  MovieTime revealed{0};
  MovieTime hiddenAtEnd{0};  ///< likewise of the media past the end of the other track's; not counted above
  MovieTime revealedAtEnd{0};
};

/// A moment of the media that is shown in several places counts with the first of them for the moves, and with all for
/// the lengths. Pieces of the media up to `grain` long do not count for the moves.
TimeMapChange compareTimeMaps(const TrackPresentation& before, uint32_t movieTimescaleBefore,
                              const TrackPresentation& after, uint32_t movieTimescaleAfter, MovieTime grain);

}  // namespace tarn

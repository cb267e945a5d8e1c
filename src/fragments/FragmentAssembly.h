#pragma once

#include "fragments/FragmentReader.h"
#include "fragments/PlainMovie.h"

namespace tarn {

/// The plain movie of one in fragments: without `mvex`, with durations from its samples and with edit lists for them.
/// It begins when its first track shows something, with the other tracks as much later as in the source. Everything
/// else of the `moov` stays. Throws FragmentsError for edit lists that cannot hold for all samples, MovieError.
PlainMovie assemblePlainMovie(FragmentedMovie movie);

}  // namespace tarn

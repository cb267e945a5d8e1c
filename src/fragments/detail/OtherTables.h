#pragma once

#include <cstdint>

#include "movie/MovieTree.h"

namespace tarn {

/// Lets the boxes of an `stbl` that say something of each sample, and that nobody here needs, follow the number of
/// samples: degradation priorities, `stdp` (ISO/IEC 14496-12 8.5.3), padding bits, `padb` (8.7.6), and sub-samples,
/// `subs` (8.7.7). What they say of samples that are gone leaves them. An `stdp` or `padb` that does not reach to the
/// last sample goes, as the standard has them whole; so does a `subs` that says nothing. A `subs` ends where its
/// entries cannot be read.
void fitOtherTables(MovieBox& stbl, uint64_t samples);

}  // namespace tarn

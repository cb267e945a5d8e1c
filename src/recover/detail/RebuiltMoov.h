#pragma once

#include "fragments/PlainMovie.h"
#include "recover/detail/FoundMedia.h"
#include "recover/detail/Recorder.h"

namespace tarn {

/// The recorder's movie with the samples that were found in the place of its own. Tracks begin as late as they do in
/// the healthy movie, and are shown to their ends. When and where that one was made is left out. Throws MovieError.
PlainMovie rebuiltMovie(Recorder recorder, const FoundMedia& found);

}  // namespace tarn

#pragma once

#include <optional>

#include "audio/transcode/TranscodeConfig.h"
#include "pipeline/CancellationToken.h"
#include "platform/FileManager.h"

namespace tarn {

/// Decodes the audio of `inputURL`, fills what is missing, and writes it as one whole AAC track to `outputURL`, an M4A,
/// which is replaced. Sample n of it starts at n / sampleRate seconds. Sync with the video stays with the edit list.
/// `cancellationToken` may be null. The callback comes on the calling thread.
/// With `shownMediaEnd`, in seconds of the media, the output is the media itself, from media time 0 to there (and the
/// length of a fade beyond) or to the end of the media, whichever comes first, for a new track that gets the edit list
/// of the old one: a gap is silence in place, of an overlap the later packet stays. The edit list of `inputURL` and the
/// pictures are then not looked at, and `timing` is only logged. Throws AudioTranscoderError, and CancellationError,
/// after which there is no output.
void transcodeAudio(FileManager& files, const Path& inputURL, const Path& outputURL, const SourceTiming& timing,
                    const TranscodeConfig& config, const CancellationToken* cancellationToken,
                    const TranscodeProgress& progressCallback, const std::optional<double>& shownMediaEnd);

}  // namespace tarn

#pragma once

#include <string>

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// Decodes and encodes the audio of run.fileURL, and puts the new track in the place of the old one in one step. Enters
/// the stages from `transcodingPass1` to `audioReplaced`. The source's sync facts must be in the run. Where the new
/// track would harm what the file shows, the old one stays, run.leave() says why, and run.audioWasTranscoded is false.
/// `done` says for people what that mends.
/// Throws AudioTranscoderError, AudioTrackReplacerError, CancellationError, and failures of the file layer; until the
/// swap the file is as it was. `workers`: see TranscodeConfig.
void replaceAudio(ProcessingRun& run, const std::string& done, unsigned workers);

}  // namespace tarn

#pragma once

#include <span>

#include "audio/analysis/AudioAnalysis.h"
#include "pipeline/ProcessingStep.h"

namespace tarn {

/// Repairs the audio of run.fileURL without decoding: its packets are laid back to back, silent packets put in where
/// the actions say, and the new track put in the place of the old one in one step. Temp files are registered in the
/// run's record before they are made, and gone from there and from the disk when this returns or throws. The run's
/// stage and its token are not looked at. Throws FastPathError, AudioTrackReplacerError, RefusedResult if the file
/// would then show more change than a packet lying up to its own length off, and failures of the file layer; the file
/// is then as it was.
void performFastPathAudioRepair(ProcessingRun& run, std::span<const AudioAction> actions,
                                const AudioConfigCheck& configCheck);

}  // namespace tarn

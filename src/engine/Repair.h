#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "pipeline/CancellationToken.h"
#include "pipeline/RunOutcome.h"
#include "platform/FileManager.h"

namespace tarn {

/// The repair of one local file.
struct RepairRequest {
  Path input;   ///< absolute; changed only if it is the output
  Path output;  ///< absolute; replaced, or the file that it leads to if it is a link. The input itself: in place
  bool skipVideoFix = false;
  bool skipAudioFix = false;
  std::optional<Path> like = {};     ///< a healthy movie of the same recorder, for an input whose `moov` is lost
  std::optional<Path> scratch = {};  ///< where new bytes are until they are in the result; else beside the output
  unsigned encoderWorkers = 0;       ///< threads that encode sound; 0: as many as cores, at most 4
  bool keepsOriginal = true;         ///< in place: as NAME.orig
};

struct RepairResult {
  RunOutcome outcome = {};          ///< unless it is saved, nothing was written
  std::optional<std::string> note;  ///< what was rebuilt, and what was not repaired and why
  bool isUnchanged = false;         ///< the output is the input, byte for byte
  uint64_t inputSize = 0;           ///< bytes
  uint64_t outputSize = 0;          ///< bytes; 0 unless it is saved
};

/// How far a stage of the repair has come, from 0 to 1.
using RepairProgress = std::function<void(const std::string& stage, double progress)>;

/// Runs all steps on a file that reads as the input, in layers over it, and writes the result once, beside the output,
/// which it then replaces in one step. Until then new bytes are in hidden directories, which are made with the first of
/// them. A step that fails fails the repair, and so do an input that changes meanwhile, one that has lost its `moov`
/// and cannot be rebuilt, and one that is no video. In place, an input that needs nothing stays untouched, and a link
/// is refused. Throws PosixError if the input cannot be opened.
RepairResult repairFile(const RepairRequest& request, const std::shared_ptr<CancellationToken>& token,
                        const RepairProgress& progress = {});

}  // namespace tarn

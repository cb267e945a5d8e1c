#pragma once

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
  Path input;   ///< absolute; never changed
  Path output;  ///< absolute; replaced, or the file that it leads to if it is a link
  bool skipVideoFix = false;
  bool skipAudioFix = false;
  std::optional<Path> like = {};  ///< a healthy movie of the same recorder, for an input whose `moov` is lost
};

struct RepairResult {
  RunOutcome outcome;               ///< unless it is saved, nothing was written
  std::optional<std::string> note;  ///< what was rebuilt, and what was not repaired and why
};

/// How far a stage of the repair has come, from 0 to 1.
using RepairProgress = std::function<void(const std::string& stage, double progress)>;

/// Runs all steps on a file that reads as the input, in layers over it, and writes the result once, beside the output,
/// which it then replaces in one step. New bytes are in a hidden directory beside the output until then. A step that
/// fails fails the repair, and so does an input that changes meanwhile. Throws Error if there is no room to
/// begin, or the input has lost its `moov` and cannot be rebuilt.
RepairResult repairFile(const RepairRequest& request, const std::shared_ptr<CancellationToken>& token,
                        const RepairProgress& progress = {});

}  // namespace tarn

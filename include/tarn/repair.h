#pragma once

#include <tarn/tarn.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

namespace tarn {

/// What a repair leaves alone, and what helps it.
struct RepairOptions {
  bool skipVideoFix = false;  ///< only copies the file
  bool skipAudioFix = false;  ///< leaves sound and timing as they are
  /// For an input whose `moov` is lost, since its recorder died: a healthy movie of the same recorder, by which it is
  /// rebuilt. Only for such an input.
  std::optional<std::filesystem::path> like = std::nullopt;
};

/// How a repair ended.
struct RepairReport {
  enum class Kind {
    repaired,   ///< the output is there, also if there was nothing to repair: it then is the input, byte for byte
    failed,     ///< nothing was written
    cancelled,  ///< likewise
  };

  Kind kind = Kind::failed;
  std::filesystem::path output;       ///< absolute
  std::string failure;                ///< why it failed, in words for people, without a stop
  std::optional<std::string> note;    ///< what was not looked at, and why, as a sentence
  std::vector<std::string> warnings;  ///< what was left as it was, or is lost, and why; each without a stop
  bool isPartly = false;              ///< repaired, and a part of the video is missing, as the first warning says
};

/// Repairs `input`, which is never changed, into `output`, which appears whole or not at all and replaces what is
/// there; if it is a link, it replaces the file that the link leads to. Until then new bytes are in a hidden directory
/// beside the output; it goes in any case.
///
/// `progress` hears how far a stage that takes long has come, from 0 to 1, on the calling thread. `cancel` ends the
/// repair at its next check, from any thread. Throws Error if nothing was tried: the input is no file, the output has
/// no directory or is the input. Several repairs may run at once, on threads of their own, if their outputs differ.
TARN_API RepairReport repairFile(const std::filesystem::path& input, const std::filesystem::path& output,
                                 const RepairOptions& options = {},
                                 const std::function<void(std::string_view stage, double done)>& progress = {},
                                 std::stop_token cancel = {});

}  // namespace tarn

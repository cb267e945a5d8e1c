#pragma once

#include <tarn/summary.h>
#include <tarn/tarn.h>

#include <cstdint>
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
  /// A directory for all new bytes but the result; else they are beside the result.
  std::optional<std::filesystem::path> scratch = std::nullopt;
  /// Threads that encode sound; 0: as many as cores, at most 4. For several repairs at once.
  unsigned workers = 0;
};

/// How a repair ended.
struct RepairReport {
  /// What came of it.
  enum class Kind {
    repaired,   ///< the output differs from the input
    unchanged,  ///< there was nothing to repair, or nothing that could be: the output is the input, byte for byte
    refused,    ///< nothing was written: it is not a video, is beyond repair, or must not be replaced
    failed,     ///< nothing was written
    cancelled,  ///< likewise
  };

  Kind kind = Kind::failed;                ///< how it ended
  std::filesystem::path output = {};       ///< absolute
  uint64_t inputSize = 0;                  ///< bytes
  uint64_t outputSize = 0;                 ///< bytes; 0 if nothing was written
  std::string failure = {};                ///< why it failed or was refused, in words for people, without a stop
  std::string advice = {};                 ///< of a failure: what to try, as a sentence; empty if that is not known
  bool mayTryAgain = false;                ///< of a failure: the same again may work, as after a full disk
  std::optional<std::string> note = {};    ///< what was not looked at, and why, as a sentence
  std::vector<std::string> warnings = {};  ///< what was left as it was, or is lost, and why; each without a stop
  bool isPartly = false;                   ///< repaired, and a part of the video is missing, as the first warning says
  RepairSummary summary = {};              ///< what was wrong, and what was done

  /// The output is there.
  bool isThere() const { return kind == Kind::repaired || kind == Kind::unchanged; }
};

/// Receives how far a stage that takes long has come, from 0 to 1. It must not throw.
using RepairProgressSink = std::function<void(std::string_view stage, double done)>;

/// Repairs `input`, which is never changed, into `output`, which appears whole or not at all and replaces what is
/// there; if it is a link, it replaces the file that the link leads to. Until then new bytes are in hidden directories
/// beside the output or in the scratch directory; they go in any case. The output gets the owner, the mode, the time of
/// the last change and the extended attributes of the input; a warning says what the system did not permit of that.
///
/// `progress` is called on the calling thread. `cancel` ends the repair at its next check, from any thread; the report
/// then says `cancelled`. Throws Error if nothing was tried: the input or `like` is no file, the output has no
/// directory, is the input or is no regular file. What fails later is in the report. Several repairs may run at once,
/// on threads of their own, if their outputs differ.
TARN_API RepairReport repairFile(const std::filesystem::path& input, const std::filesystem::path& output,
                                 const RepairOptions& options = {}, const RepairProgressSink& progress = {},
                                 std::stop_token cancel = {});

/// What becomes of a file that is repaired in place.
enum class Original {
  isKept,  ///< as NAME.orig beside it, a hard link; the repair is refused if there is such a file
  isLost,
};

/// Repairs a file in place: the result takes its name in one step. A file that needs nothing is not touched. A symbolic
/// link is refused, and a file with several hard links. All else is as with repairFile().
TARN_API RepairReport repairInPlace(const std::filesystem::path& file, Original original = Original::isKept,
                                    const RepairOptions& options = {}, const RepairProgressSink& progress = {},
                                    std::stop_token cancel = {});

}  // namespace tarn

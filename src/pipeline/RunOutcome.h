#pragma once

#include <tarn/summary.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <vector>

namespace tarn {

/// How a run ended, or a download that never came to a run.
struct RunOutcome {
  enum class Kind { saved, failed, cancelled };
  /// How far the download had come.
  enum class Where { start, transfer, handOver, repair, saving };

  int64_t id = 0;  ///< of the download
  Kind kind = Kind::cancelled;
  Where where = Where::repair;
  std::string words = {};                   ///< of a failure, for people; URLs in it are without their secrets
  std::exception_ptr failure = nullptr;     ///< of a failure
  std::optional<std::string> assetId = {};  ///< of a video that the photo library took
  std::vector<std::string> leftAlone = {};  ///< what the run could not mend without harm and left as it was, and why
  bool isDiskFull = false;                  ///< a failure: there was no room for what was to be written
  bool isRefused = false;                   ///< a failure: it is not a video, and the words say what to do instead
  bool isPartly = false;                    ///< a part of the video is missing, as `leftAlone` says
  RepairSummary summary = {};               ///< of a run that came to its last step
  std::optional<uint64_t> size = {};        ///< of a saved video, in bytes
  std::string filename = {};                ///< of a saved video: the server may have given it

  static RunOutcome failed(int64_t id, Where where, const std::exception_ptr& failure);

  void setSaved(const std::optional<std::string>& asset = std::nullopt);
  void setFailed(Where place, const std::exception_ptr& reason);

  /// True if the run has come to its end: its stored record has no use any more. A save that failed is not tried again.
  bool isFinal() const { return kind == Kind::saved || (kind == Kind::failed && where == Where::saving); }
};

}  // namespace tarn

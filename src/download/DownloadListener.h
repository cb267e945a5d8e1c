#pragma once

#include <cstdint>

#include "download/DownloadRequest.h"
#include "pipeline/RunOutcome.h"

namespace tarn {

/// Is told of every download that the engine takes, and how it ends, before everybody else. Called on any thread, under
/// no lock; it must not call the engine, and returns soon.
class DownloadListener {
 public:
  virtual ~DownloadListener() = default;

  /// The engine has taken a download, and has stored nothing of it yet.
  virtual void began(int64_t id, const DownloadRequest& request) noexcept = 0;

  /// The download was saved, has failed, or was cancelled by somebody. A process that ends or is sent to the background
  /// ends no download. One that is cancelled while it is being saved may still be told as saved; and one that a kill
  /// has met at its end ends once more in the next process.
  virtual void ended(const RunOutcome& outcome) noexcept = 0;
};

}  // namespace tarn

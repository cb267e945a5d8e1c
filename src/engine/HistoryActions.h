#pragma once

#include <cstdint>
#include <mutex>

#include "platform/Capacitor.h"

namespace tarn {

class Host;

/// What a page or a command does to a download of the history. Each answers the call. Thread-safe.
class HistoryActions {
 public:
  /// The host must outlive it, and calls that wait for an answer.
  explicit HistoryActions(Host& host) : host_(host) {}

  /// Stops a download wherever it is. One that the engine does not know, or that has ended, is left as it is.
  void cancel(int64_t id, const CAPPluginCallPointer& call);

  /// Asks once more for a download that has failed or was cancelled, without any repair if `asItCame`. The new
  /// download, whose id is the answer, takes the place of the old one in the history.
  void retry(int64_t id, bool asItCame, const CAPPluginCallPointer& call);

 private:
  Host& host_;
  std::mutex mutex_;  ///< of two retries of one download at once the second finds no row
};

}  // namespace tarn

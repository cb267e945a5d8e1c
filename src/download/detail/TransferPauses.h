#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "download/detail/DownloadStarter.h"
#include "download/detail/EngineState.h"

namespace tarn {

/// Tells how far the transfers are, and pauses them and lets them go on for their user. A paused download keeps its
/// status and is in no line and in no slot. The transfer's note keeps the pause over a restart. Thread-safe; one
/// pause or resume at a time, before all other locks.
class TransferPauses {
 public:
  TransferPauses(EngineState& engine, DownloadStarter& starter) : engine_(engine), starter_(starter) {}

  std::map<int64_t, TransferState> states();
  /// False if the download has no transfer that can be paused. Throws PosixError.
  bool pause(int64_t id);
  /// False if the download is not paused. Throws PosixError.
  bool resume(int64_t id);

 private:
  std::optional<DownloadStarter::NotedTransfer> transferOf(int64_t id);

  EngineState& engine_;
  DownloadStarter& starter_;
  std::mutex mutex_;
};

}  // namespace tarn

#pragma once

#include <cstdint>
#include <string>

#include "download/DownloadTask.h"
#include "platform/JSObject.h"

namespace tarn {

/// What a page sees of a task: one snapshot of it, in the shapes of the commands' results and the events.
class TaskPayload {
 public:
  explicit TaskPayload(const DownloadTask& task);

  /// `status`, `reason`, `filename`, `id`
  JSObject summary() const;
  /// `id`, `status`, `reason`, `filename`, `bytesDownloaded`, `totalBytes`
  JSObject withBytes() const;
  /// the same, and while processing `processingProgress`, `processingStage`
  JSObject progressEntry() const;
  /// `status`, `reason`, `filename`, `id`, `assetId`
  JSObject completion() const;
  /// `status`, `reason`, `id`
  JSObject failure() const;

 private:
  const DownloadTask& task_;
  DownloadTask::Snapshot fields_;
};

/// `id`, `status`, `processingProgress`, `processingStage`
JSObject stageUpdatePayload(int64_t id, double progress, const std::string& stage);

}  // namespace tarn

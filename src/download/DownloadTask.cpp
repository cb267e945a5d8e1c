#include "download/DownloadTask.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tarn {
namespace {

struct StatusRow {
  std::string_view rawValue;
  std::string_view pageText;
};

constexpr std::array<StatusRow, 8> statusTable{{
    {"unknown", "STATUS_UNKNOWN"},
    {"queued", "STATUS_PENDING"},
    {"downloading", "STATUS_RUNNING"},
    {"processing", "STATUS_PROCESSING"},
    {"paused", "STATUS_PAUSED"},
    {"completed", "STATUS_SUCCESSFUL"},
    {"failed", "STATUS_FAILED"},
    {"cancelled", "STATUS_CANCELLED"},
}};
static_assert(statusTable.size() == static_cast<size_t>(DownloadStatus::cancelled) + 1);

}  // namespace

std::string_view rawValue(DownloadStatus status) {
  return statusTable[static_cast<size_t>(status)].rawValue;
}

std::string_view pageText(DownloadStatus status) {
  return statusTable[static_cast<size_t>(status)].pageText;
}

bool isActive(DownloadStatus status) {
  return status == DownloadStatus::queued || status == DownloadStatus::downloading ||
         status == DownloadStatus::processing;
}

DownloadStatus downloadStatus(std::string_view rawValue) {
  auto found = std::ranges::find(statusTable, rawValue, &StatusRow::rawValue);
  if (found == statusTable.end()) return DownloadStatus::unknown;
  return static_cast<DownloadStatus>(found - statusTable.begin());
}

DownloadReason DownloadReason::error(std::exception_ptr failure) {
  DownloadReason reason(Case::error);
  reason.failure = std::move(failure);
  return reason;
}

std::string_view DownloadReason::description() const {
  switch (kind) {
    case Case::error:
      return "ERROR_UNKNOWN";
    case Case::none:
    case Case::cancelled:
      return "REASON_NONE";
    case Case::networkFailure:
      return "PAUSED_WAITING_FOR_NETWORK";
    case Case::serverUnavailable:
      return "ERROR_HTTP_DATA_ERROR";
    case Case::insufficientSpace:
      return "ERROR_INSUFFICIENT_SPACE";
    case Case::waitingToRetry:
      return "PAUSED_WAITING_TO_RETRY";
    case Case::queuedForWifi:
      return "PAUSED_QUEUED_FOR_WIFI";
    case Case::fileError:
      return "ERROR_FILE_ERROR";
    case Case::cannotResume:
      return "ERROR_CANNOT_RESUME";
    case Case::fileAlreadyExists:
      return "ERROR_FILE_ALREADY_EXISTS";
  }
  return "ERROR_UNKNOWN";
}

DownloadTask::DownloadTask(FileManager& files, int64_t taskId, DownloadRequest asked)
    : id(taskId), request(std::move(asked)), files_(files) {}

DownloadTask::Snapshot DownloadTask::snapshot() const {
  std::lock_guard guard(mutex_);
  return fields_;
}

DownloadStatus DownloadTask::status() const {
  std::lock_guard guard(mutex_);
  return fields_.status;
}

bool DownloadTask::isEnded() const {
  std::lock_guard guard(mutex_);
  return fields_.isEnded();
}

bool DownloadTask::isPaused() const {
  std::lock_guard guard(mutex_);
  return fields_.isPaused;
}

std::optional<std::string> DownloadTask::filename() const {
  std::lock_guard guard(mutex_);
  return fields_.serversName ? fields_.serversName : request.filename;
}

bool DownloadTask::claimNotification() {
  std::lock_guard guard(mutex_);
  return !std::exchange(fields_.notificationSent, true);
}

void DownloadTask::fail(std::exception_ptr failure) {
  update([&](Snapshot& fields) {
    if (fields.isEnded()) return;
    fields.status = DownloadStatus::failed;
    fields.reason = DownloadReason::error(std::move(failure));
  });
}

void DownloadTask::cancel() {
  end(DownloadStatus::failed);
}

void DownloadTask::cleanup() {
  end(DownloadStatus::cancelled);
  update([](Snapshot& fields) { fields.resumeData.reset(); });
}

void DownloadTask::end(DownloadStatus status) {
  Transfer transfer;
  std::optional<Path> location;
  CompletionHandler handler;  // what it captured must not be destroyed under the mutex
  update([&](Snapshot& fields) {
    transfer = std::exchange(fields.downloadTask, nullptr);
    location = std::exchange(fields.location, std::nullopt);
    handler = std::exchange(fields.onDownloadComplete, nullptr);
    fields.status = status;
    fields.reason = DownloadReason::Case::cancelled;
  });
  if (transfer && transfer->state() == NSURLSessionTaskState::running) transfer->cancel();
  if (location) removeIfExists(files_, *location);
}

}  // namespace tarn

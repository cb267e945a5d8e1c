#include "plugin/detail/TaskPayload.h"

namespace tarn {
namespace {

int64_t percent(double progress) {
  return static_cast<int64_t>(progress * 100);
}

std::string text(std::string_view view) {
  return std::string(view);
}

}  // namespace

TaskPayload::TaskPayload(const DownloadTask& task) : task_(task), fields_(task.snapshot()) {}

JSObject TaskPayload::failure() const {
  return {{"status", text(pageText(fields_.status))}, {"reason", text(fields_.reason.description())}, {"id", task_.id}};
}

JSObject TaskPayload::summary() const {
  JSObject payload{{"status", text(pageText(fields_.status))}, {"reason", text(fields_.reason.description())}};
  if (const auto filename = task_.filename()) payload.set("filename", *filename);
  payload.set("id", task_.id);
  return payload;
}

JSObject TaskPayload::completion() const {
  JSObject payload = summary();
  if (fields_.assetId) payload.set("assetId", *fields_.assetId);
  return payload;
}

JSObject TaskPayload::withBytes() const {
  JSObject payload{
      {"id", task_.id}, {"status", text(pageText(fields_.status))}, {"reason", text(fields_.reason.description())}};
  if (const auto filename = task_.filename()) payload.set("filename", *filename);
  payload.set("bytesDownloaded", fields_.bytesDownloaded);
  payload.set("totalBytes", fields_.totalBytes);
  return payload;
}

JSObject TaskPayload::progressEntry() const {
  JSObject payload = withBytes();
  if (fields_.status == DownloadStatus::processing) {
    payload.set("processingProgress", percent(fields_.processingProgress));
    payload.set("processingStage", fields_.processingStage);
  }
  return payload;
}

JSObject stageUpdatePayload(int64_t id, double progress, const std::string& stage) {
  return {{"id", id},
          {"status", text(pageText(DownloadStatus::processing))},
          {"processingProgress", percent(progress)},
          {"processingStage", stage}};
}

}  // namespace tarn

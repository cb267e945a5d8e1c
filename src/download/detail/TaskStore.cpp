#include "download/detail/TaskStore.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

std::optional<std::string> optionalText(const Json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || found->is_null()) return std::nullopt;
  return found->get<std::string>();
}

}  // namespace

Bytes encodeDownloadTasks(const std::vector<DownloadTaskData>& tasks) {
  Json document = Json::array();
  for (const DownloadTaskData& task : tasks) {
    Json object;
    object["id"] = task.id;
    object["url"] = task.request.url;
    if (task.request.album) object["album"] = *task.request.album;
    if (task.request.filename) object["filename"] = *task.request.filename;
    object["status"] = task.status;
    document.push_back(std::move(object));
  }
  std::string text = document.dump(-1, ' ', false, Json::error_handler_t::replace);
  return Bytes(text.begin(), text.end());
}

std::vector<DownloadTaskData> decodeDownloadTasks(ByteView document) {
  try {
    Json json = Json::parse(document.begin(), document.end());
    if (!json.is_array()) throw Error("DownloadTaskData", -1, "not an array");
    std::vector<DownloadTaskData> tasks;
    for (const Json& object : json) {
      tasks.push_back({.id = object.at("id").get_ref<const int64_t&>(),
                       .request = {.url = object.at("url").get<std::string>(),
                                   .album = optionalText(object, "album"),
                                   .filename = optionalText(object, "filename")},
                       .status = object.at("status").get<std::string>()});
    }
    return tasks;
  } catch (const Json::exception& error) {
    throw Error("DownloadTaskData", -1, error.what());
  }
}

std::vector<DownloadTaskData> TaskStore::load() {
  std::lock_guard guard(mutex_);
  auto document = defaults_.data(downloadsKey);
  if (!document) return {};
  try {
    return decodeDownloadTasks(*document);
  } catch (const Error&) {
    return {};  // a damaged list counts as empty, and the next persist replaces it
  }
}

void TaskStore::persist() {
  std::lock_guard guard(mutex_);
  std::vector<DownloadTaskData> tasks;
  for (const DownloadTaskPointer& task : registry_.all()) {
    DownloadRequest request = task->request;
    request.filename = task->filename();
    tasks.push_back({.id = task->id, .request = std::move(request), .status = std::string(rawValue(task->status()))});
  }
  try {
    defaults_.setData(downloadsKey, encodeDownloadTasks(tasks));
  } catch (const Error& error) {
    log("Failed to store downloads: {}", error.description());
  }
}

void TaskStore::clear() {
  std::lock_guard guard(mutex_);
  try {
    defaults_.removeObject(downloadsKey);
  } catch (const Error& error) {
    log("Failed to remove stored downloads: {}", error.description());
  }
}

}  // namespace tarn

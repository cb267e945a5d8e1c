#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "download/detail/DownloadRegistry.h"
#include "platform/UserDefaults.h"

namespace tarn {

/// The stored form of a task: one object of the JSON array under "ActiveDownloads". Optional keys are left out if
/// empty.
struct DownloadTaskData {
  int64_t id = 0;
  DownloadRequest request;  ///< its flags are not stored here
  std::string status;       ///< raw value of a DownloadStatus
};

Bytes encodeDownloadTasks(const std::vector<DownloadTaskData>& tasks);
/// Throws Error if any part of the document is not of this form.
std::vector<DownloadTaskData> decodeDownloadTasks(ByteView document);

/// The list of tasks that survives a restart. Thread-safe: of two writers at once, the one with the later list wins.
class TaskStore {
 public:
  static constexpr const char* downloadsKey = "ActiveDownloads";

  TaskStore(UserDefaults& defaults, const DownloadRegistry& registry) : defaults_(defaults), registry_(registry) {}

  /// The stored tasks; empty if there are none or the document does not decode. Throws PosixError if it cannot be read.
  std::vector<DownloadTaskData> load();

  /// Stores all tasks of the registry. A failure is logged; the stored list then stays as it was.
  void persist();

  /// Removes the stored list.
  void clear();

 private:
  UserDefaults& defaults_;
  const DownloadRegistry& registry_;
  std::mutex mutex_;
};

}  // namespace tarn

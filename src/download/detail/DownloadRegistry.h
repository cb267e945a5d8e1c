#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "download/DownloadTask.h"

namespace tarn {

/// Every task that the engine holds, who is told about each, and which transfer belongs to which: three maps under one
/// lock. It may be used while another lock is held; under its own only tasks are used. Thread-safe.
class DownloadRegistry {
 public:
  using DelegatePointer = std::shared_ptr<DownloadManagerDelegate>;

  void insert(const DownloadTaskPointer& task);
  /// Takes the task out, with its delegate. Returns null if there is none.
  DownloadTaskPointer remove(int64_t id);

  DownloadTaskPointer find(int64_t id) const;
  bool contains(int64_t id) const { return find(id) != nullptr; }
  /// All tasks by their ids, the oldest first.
  std::vector<DownloadTaskPointer> all() const;

  /// Sets who is told of a task, if the task is there.
  void setDelegate(int64_t id, const std::weak_ptr<DownloadManagerDelegate>& delegate);
  void removeDelegate(int64_t id);
  DelegatePointer delegate(int64_t id) const;

  /// Remembers the transfer of a task.
  void mapTransfer(int64_t taskIdentifier, int64_t id);
  /// Forgets a transfer after its last event.
  void forgetTransfer(int64_t taskIdentifier);

  /// The task of a transfer's event.
  struct Match {
    DownloadTaskPointer task;
    bool isNew = false;  ///< found by id or URL just now: a transfer of an earlier process
  };
  /// Finds the task by the transfer's identifier. A transfer that this process has not begun belongs to the task that
  /// its note names, else to the first of the same URL; tasks that wait or have a live transfer are skipped. A new
  /// match is remembered.
  Match match(int64_t taskIdentifier, const std::string& url, std::optional<int64_t> notedId);

  /// Clears the location of every task that names this file: the file is about to be replaced.
  void forgetLocation(const Path& location);

 private:
  mutable std::mutex mutex_;
  std::map<int64_t, DownloadTaskPointer> downloads_;
  std::map<int64_t, std::weak_ptr<DownloadManagerDelegate>> delegates_;
  /// A transfer stays here until its last event, even if its task is gone: its events belong to no other task.
  std::map<int64_t, int64_t> taskIdToDownloadId_;
};

}  // namespace tarn

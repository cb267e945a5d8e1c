#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "download/DownloadTask.h"
#include "platform/UserDefaults.h"

namespace tarn {

/// A download that waits for a slot. The delegate is held weakly: it owns the engine, which holds this.
struct PendingDownload {
  DownloadTaskPointer task;
  std::weak_ptr<DownloadManagerDelegate> delegate;
};

/// The waiting line, and the slots that limit how many downloads run. A slot belongs to an id from the start of the
/// transfer to the end of the file's run, and is given back once, by whoever comes first. Under its lock only the
/// stored limit is read. Thread-safe.
class DownloadQueue {
 public:
  static constexpr const char* limitKey = "MaxConcurrentDownloads";
  static constexpr int64_t defaultLimit = 3;
  static constexpr int64_t largestLimit = 10;

  explicit DownloadQueue(UserDefaults& defaults) : defaults_(defaults) {}

  /// The stored limit; it is read anew each time.
  int64_t limit();
  /// Stores the limit, clamped to 1 to 10; returns what was stored. Throws PosixError.
  int64_t setLimit(int64_t limit);

  struct Counts {
    size_t queued = 0;
    size_t running = 0;
    int64_t limit = 0;
  };

  /// Takes a slot for the download, or puts it at the end of the line if all are taken.
  struct Admission {
    bool hasSlot = false;
    Counts counts;
  };
  Admission admit(const PendingDownload& download);

  /// Puts a download at the end of the line.
  void append(const PendingDownload& download);

  /// Takes the first of the line, with a slot for it; nothing while all slots are taken or nobody waits.
  struct Started {
    PendingDownload download;
    Counts counts;
  };
  std::optional<Started> takeNext();

  /// Frees the slot of an id. Returns false if it held none.
  bool releaseSlot(int64_t id);
  /// Takes the download out of the line; returns it if it was there.
  std::optional<PendingDownload> remove(int64_t id);
  /// Empties the line and frees all slots.
  void clear();
  size_t queuedCount() const;

 private:
  Counts counts(int64_t limit) const { return {pendingQueue_.size(), running_.size(), limit}; }

  UserDefaults& defaults_;
  mutable std::mutex queueLock_;
  std::deque<PendingDownload> pendingQueue_;
  std::set<int64_t> running_;  ///< ids that hold a slot
};

}  // namespace tarn

#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>

#include "platform/FileManager.h"

namespace tarn {

/// The names of files that are being made, moved or deleted, and that no stored record protects yet. Whoever works on
/// such a file holds its name, and a name has one holder at a time: the hand-over of a transfer until the record is
/// written, a step for its temp files, a run for its video, the sweep for the moment of a deletion. Thread-safe. Its
/// lock is held for a moment only, and under it nobody is called.
class NamesInTheMaking {
 public:
  /// Holds a name until it is destroyed. Must not outlive the NamesInTheMaking.
  class Hold {
   public:
    Hold(Hold&& other) noexcept;
    Hold& operator=(Hold&&) = delete;
    ~Hold();

    const Path& path() const { return path_; }

   private:
    friend class NamesInTheMaking;
    Hold(NamesInTheMaking& names, Path path);

    NamesInTheMaking* names_;
    Path path_;
  };

  /// Waits until nobody else holds the name. That may take as long as a run, so only queues with a thread of their own
  /// may wait here.
  Hold hold(const Path& path);

  /// Returns nothing if somebody holds the name.
  std::optional<Hold> tryHold(const Path& path);

 private:
  std::mutex mutex_;
  std::condition_variable released_;
  std::set<Path> paths_;
};

}  // namespace tarn

#pragma once

#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>

#include "platform/FileManager.h"

namespace tarn {

/// The files that are being made, moved or deleted, and that no stored record protects yet. Whoever works on such a
/// file holds its name, and a name has one holder at a time: the hand-over of a transfer until the record is written, a
/// step for its temp files, a run for its video, the sweep for the moment of a deletion. Thread-safe; a leaf: it never
/// calls out.
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

  /// Waits until nobody holds the name.
  Hold hold(const Path& path);

  /// Nothing when somebody holds the name.
  std::optional<Hold> tryHold(const Path& path);

 private:
  std::mutex mutex_;
  std::condition_variable released_;
  std::set<Path> paths_;
};

}  // namespace tarn

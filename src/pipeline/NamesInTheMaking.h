#pragma once

#include <mutex>
#include <set>

#include "platform/FileManager.h"

namespace tarn {

/// The files that are being made or moved into place and that no stored record names yet. Whoever makes one holds its
/// name; the sweep of orphaned files passes over what is held here. Thread-safe; a leaf: it never calls out.
class NamesInTheMaking {
 public:
  /// Holds a name until the end of the scope.
  class Hold {
   public:
    Hold(NamesInTheMaking& names, Path path);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    const Path& path() const { return path_; }

   private:
    NamesInTheMaking& names_;
    Path path_;
  };

  bool holds(const Path& path) const;

 private:
  mutable std::mutex mutex_;
  std::multiset<Path> paths_;
};

}  // namespace tarn

#pragma once

#include <mutex>

#include "platform/FileManager.h"
#include "platform/host/Descriptor.h"

namespace tarn {

/// A hidden directory for the work on one file, beside the place of the result, so that the result gets its name in one
/// step and is never copied a second time. It goes with its owner; what a killed process has left goes when the next
/// one works in the same place, or sweeps it. Thread-safe.
class PrivateHome {
 public:
  /// Makes nothing yet.
  explicit PrivateHome(Path place);
  ~PrivateHome();
  PrivateHome(const PrivateHome&) = delete;
  PrivateHome& operator=(const PrivateHome&) = delete;

  /// The directory, which may not be there yet.
  const Path& path() const { return path_; }

  /// Makes the directory if that was not done. Throws PosixError when it cannot be made.
  void make();

  /// Removes the directories in `place` whose owners are dead.
  static void sweep(const Path& place);

 private:
  const Path place_;
  const Path path_;
  std::mutex mutex_;
  bool isMade_ = false;
  Descriptor lock_;
};

}  // namespace tarn

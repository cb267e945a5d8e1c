#pragma once

#include <mutex>

#include "platform/FileManager.h"
#include "platform/host/Descriptor.h"

namespace tarn {

/// A hidden directory for the work on one file, beside the place of the result, so that the result gets its name in one
/// step and is never copied a second time. It goes with its owner. Thread-safe.
///
/// All homes of a user in one place stand in one hidden directory there, which goes with the last of them; each is
/// named after the boot of its machine and a UUID. What a killed process has left goes when the next one of the same
/// machine begins to work in the place, or sweeps it: a lock shows that the owner is dead. On a network folder other
/// machines do not see that lock, so what theirs have left, or this one before it was started anew, goes once it has
/// not changed for seven days.
class PrivateHome {
 public:
  /// Makes nothing yet.
  explicit PrivateHome(Path place);
  ~PrivateHome();
  PrivateHome(const PrivateHome&) = delete;
  PrivateHome& operator=(const PrivateHome&) = delete;

  /// The directory, which may not be there yet.
  const Path& path() const { return path_; }

  /// Makes the directory if that was not done; the first in a place sweeps it. Throws PosixError when it cannot be
  /// made, and Error if in a place for everybody, as /tmp, another user has the directory of the homes.
  void make();

  /// Removes the homes in `place` whose owners are dead.
  static void sweep(const Path& place);

 private:
  const Path place_;
  const Path all_;  ///< the directory of all homes
  const Path path_;
  std::mutex mutex_;
  bool isBegun_ = false;  ///< the directory may be there
  bool isMade_ = false;
  Descriptor lock_;
};

}  // namespace tarn

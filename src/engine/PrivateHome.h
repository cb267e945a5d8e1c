#pragma once

#include "platform/FileManager.h"
#include "platform/host/Descriptor.h"

namespace tarn {

/// A hidden directory for the work on one file, beside the place of the result, so that the result gets its name in one
/// step and is never copied a second time. It goes with its owner; what a killed process has left goes when the next
/// one works in the same place.
class PrivateHome {
 public:
  /// Throws PosixError when the directory cannot be made.
  explicit PrivateHome(const Path& place);
  ~PrivateHome();
  PrivateHome(const PrivateHome&) = delete;
  PrivateHome& operator=(const PrivateHome&) = delete;

  const Path& path() const { return path_; }

 private:
  Path path_;
  Descriptor lock_;
};

}  // namespace tarn

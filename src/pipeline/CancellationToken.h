#pragma once

#include <mutex>

#include "platform/Error.h"

namespace tarn {

/// Ends a run that was asked to stop. The driver knows it by its type.
class CancellationError : public Error {
 public:
  CancellationError() : Error("CancellationError", -1, "Operation was cancelled") {}
};

/// Asks a run to stop at its next check. Shared by the run and whoever may cancel it; thread-safe.
class CancellationToken {
 public:
  bool isCancelled() const;
  void cancel();
  void reset();
  /// Throws CancellationError if set.
  void throwIfCancelled() const;

 private:
  mutable std::mutex lock_;
  bool isCancelled_ = false;
};

}  // namespace tarn

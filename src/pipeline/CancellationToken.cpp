#include "pipeline/CancellationToken.h"

namespace tarn {

bool CancellationToken::isCancelled() const {
  std::lock_guard guard(lock_);
  return isCancelled_;
}

void CancellationToken::cancel() {
  std::lock_guard guard(lock_);
  isCancelled_ = true;
}

void CancellationToken::reset() {
  std::lock_guard guard(lock_);
  isCancelled_ = false;
}

void CancellationToken::throwIfCancelled() const {
  if (isCancelled()) throw CancellationError();
}

}  // namespace tarn

#include "platform/PhotoAuthorization.h"

#include <utility>

namespace tarn {

PHAuthorizationStatus PhotoAuthorization::status() const {
  std::lock_guard guard(mutex_);
  return status_;
}

void PhotoAuthorization::setStatus(PHAuthorizationStatus status) {
  std::lock_guard guard(mutex_);
  status_ = status;
}

void PhotoAuthorization::setAnswer(PHAuthorizationStatus answer) {
  std::lock_guard guard(mutex_);
  answer_ = answer;
}

void PhotoAuthorization::request(Dispatch& dispatch, PHPhotoLibrary::AuthorizationHandler handler) {
  std::lock_guard guard(mutex_);
  if (status_ == PHAuthorizationStatus::notDetermined) status_ = answer_;
  dispatch.globalQueue(QualityOfService::userInitiated).async([handler = std::move(handler), status = status_] {
    handler(status);
  });
}

void PhotoAuthorization::require() const {
  const auto current = status();
  if (current == PHAuthorizationStatus::authorized || current == PHAuthorizationStatus::limited) return;
  throw PHPhotosError(PHPhotosError::accessDenied, "Access to the photo library is not allowed");
}

}  // namespace tarn

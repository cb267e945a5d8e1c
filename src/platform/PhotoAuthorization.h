#pragma once

#include <mutex>

#include "platform/Dispatch.h"
#include "platform/Error.h"
#include "platform/PHPhotoLibrary.h"

namespace tarn {

/// A failure of the photo library itself; failures of the files and of the catalogue keep their own domains.
class PHPhotosError : public Error {
 public:
  static constexpr int invalidChange = 3300;
  static constexpr int accessDenied = 3311;
  static constexpr int readOnly = 3114;
  static constexpr int invalidResource = 3302;
  PHPhotosError(int code, std::string description) : Error("PHPhotosErrorDomain", code, std::move(description)) {}
};

/// Says who may use the photo library: a setting, with the user's answer written beforehand. Thread-safe.
class PhotoAuthorization {
 public:
  PHAuthorizationStatus status() const;
  void setStatus(PHAuthorizationStatus status);

  /// What the user will answer when asked; `authorized` until set.
  void setAnswer(PHAuthorizationStatus answer);

  /// Asks the user when the status is not determined, which determines it, and tells the handler the status on a
  /// global queue.
  void request(Dispatch& dispatch, PHPhotoLibrary::AuthorizationHandler handler);

  /// Throws PHPhotosError unless the status is authorized or limited.
  void require() const;

 private:
  mutable std::mutex mutex_;
  PHAuthorizationStatus status_ = PHAuthorizationStatus::authorized;
  PHAuthorizationStatus answer_ = PHAuthorizationStatus::authorized;
};

}  // namespace tarn
